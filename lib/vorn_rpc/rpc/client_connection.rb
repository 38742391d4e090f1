# frozen_string_literal: true

require "io/wait"

module VORN
  module RPC
    # A client's side of one connection. Of the threads that wait for answers one reads, for all of them; when it has
    # its own answer, another goes on. Callers hold interrupts.
    class ClientConnection # :nodoc:
      CHUNK = 65_536

      # A call that waits. ready: signalled when there is an answer, or when nobody reads any more.
      Call = Struct.new(:answer, :ready)

      def initialize(io, max_length:, max_depth:, preserve_symbols:)
        @io = io
        @socket = io.to_io
        @chunk = "".b # what was read last
        @decoder = Stream::Decoder.new(max_length: max_length, max_depth: max_depth, preserve_symbols: preserve_symbols)
        @encoder = Stream::Encoder.new(max_length: max_length)
        @sending = Mutex.new # guards the encoder and the order of frames
        @lock = Mutex.new    # guards what follows; never held while waiting for the peer
        @calls = {}          # by id
        @last_id = 0
        @reading = false     # whether a thread reads
        @lost = nil          # why no answer can come
        @stopping = nil      # what the server says of its end: a connection for no further call
      end

      # Whether a call may be tried. That the server has gone while no call was waiting is found here, before a request
      # is lost.
      def usable?
        as_reader { read_chunk } if @calls.empty?
        !@lost && !@stopping
      end

      def lost?
        !@lost.nil?
      end

      def call(name, arguments, deadline)
        id, call = register
        begin
          write([id, name, arguments], deadline)
          wait(call, deadline)
        ensure
          forget(id)
        end
        raise ConnectionLost, @lost unless call.answer
        _, error, result = call.answer
        raise RemoteError.new(*error) if error
        result
      end

      def notify(name, arguments, deadline)
        write([nil, name, arguments], deadline)
        nil
      end

      # Ends the connection, and all calls on it.
      def lose(reason)
        @lock.synchronize do
          return if @lost
          @lost = reason
          @calls.each_value { |call| call.ready.signal if call.ready }
          @reading && @socket.respond_to?(:shutdown) ? shut_down : close
        end
      end

      private

      def register
        @lock.synchronize do
          raise RemoteError.new(*@stopping) if @stopping # since it was looked at
          raise ConnectionLost, @lost if @lost
          begin
            @last_id = @last_id % Envelope::MAX_ID + 1
          end while @calls.key?(@last_id) # after wrapping around, a call that waits may still have this id
          [@last_id, @calls[@last_id] = Call.new]
        end
      end

      def forget(id)
        unused = @lock.synchronize do
          @calls.delete(id)
          wake_reader # this call may have been woken to read, and not have done it
          @stopping && @calls.empty?
        end
        lose("the server is stopping") if unused
      end

      def write(request, deadline)
        @sending.synchronize do
          rest = bytes = @encoder.frame(request)
          begin
            rest = unsent(bytes)
            write_rest(rest, deadline) unless rest.empty?
            rest = ""
          rescue *io_errors => e
            raise ConnectionLost, @lost || "sending failed: #{e.message}"
          ensure
            lose("sending failed") unless rest.empty? # nothing can follow a part of a frame
          end
        end
      end

      # What the kernel does not take.
      def unsent(bytes)
        sent = @io.write_nonblock(bytes, exception: false)
        sent.is_a?(Integer) ? bytes.byteslice(sent..-1) : bytes
      end

      def write_rest(bytes, deadline)
        until bytes.empty?
          left = deadline - Clock.now
          raise Errno::ETIMEDOUT, "the server takes nothing" unless left > 0 && wait_writable(left)
          bytes = unsent(bytes)
        end
      end

      # A server may take no more requests before its answers are read, so this reads too, unless another thread does.
      def wait_writable(seconds)
        done = as_reader do
          readable, = Interrupts.allow { IO.select([@socket], [@socket], nil, seconds) }
          return false unless readable
          read_chunk unless readable.empty?
        end
        done || Interrupts.allow { IO.select(nil, [@socket], nil, seconds) }
      end

      # Returns when the call has its answer, or the connection is lost.
      def wait(call, deadline)
        until call.answer || @lost
          next if as_reader { receive(deadline - Clock.now) }
          @lock.synchronize do
            wait_for_reader(call, deadline - Clock.now) if @reading && !call.answer && !@lost
          end
        end
      end

      def wait_for_reader(call, seconds)
        raise TimedOut, "no answer in time" unless seconds > 0
        call.ready ||= ConditionVariable.new
        Interrupts.allow { call.ready.wait(@lock, seconds) }
      end

      # Reads what arrives within some seconds.
      def receive(seconds)
        raise TimedOut, "no answer in time" unless seconds > 0
        # Before Ruby 2.3 the result does not tell the end of input from a timeout.
        Interrupts.allow { @socket.wait_readable(seconds) }
        read_chunk
      end

      # Yields if no other thread reads. Returns whether it has.
      def as_reader
        reading = false
        @lock.synchronize { @reading = reading = true unless @reading || @lost }
        yield if reading
        reading
      ensure
        stop_reading if reading
      end

      def stop_reading
        @lock.synchronize do
          @reading = false
          @lost ? close : wake_reader
        end
      end

      # Lets a call that waits go on reading, if nobody does.
      def wake_reader
        return if @reading
        @calls.each_value { |call| break call.ready.signal if call.ready && !call.answer }
      end

      def read_chunk
        chunk = @io.read_nonblock(CHUNK, @chunk, exception: false)
        case chunk
        when :wait_readable then nil
        when :wait_writable then IO.select(nil, [@socket], nil, 0.1) # TLS
        when nil then lose("the server closed the connection")
        else @decoder.feed_each(chunk) { |answer| accept(answer) }
        end
      rescue EOFError # Ruby 2.2
        lose("the server closed the connection")
      rescue Stream::DamagedStream, BadMessage, *io_errors => e
        lose(e.message)
      end

      # An answer that nobody waits for is of a call that has timed out. Only a call's first answer counts.
      def accept(answer)
        Envelope.check_answer(answer)
        @lock.synchronize do
          call = @calls[answer[0]]
          next if call.nil? || call.answer
          call.answer = answer
          @stopping = answer[1] if answer[1] && answer[1][0] == Envelope::STOPPING
          call.ready.signal if call.ready
        end
      end

      # What an IO raises.
      def io_errors
        errors = [SystemCallError, IOError]
        errors << OpenSSL::SSL::SSLError if defined?(OpenSSL::SSL)
        errors
      end

      # Gives the thread that reads the end of input; it closes the IO.
      def shut_down
        @socket.shutdown
      rescue SystemCallError, IOError
        nil
      end

      def close
        @io.close
      rescue *io_errors
        nil
      end
    end
  end
end
