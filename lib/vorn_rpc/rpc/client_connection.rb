# frozen_string_literal: true

require "io/wait"

module VORN
  module RPC
    # A client's side of one connection. Of the threads that wait for answers one reads, for all of them; when it has
    # its own answer, another goes on. Callers hold interrupts.
    class ClientConnection # :nodoc:
      CHUNK = 65_536

      # How long a thread that writes leaves the reading to others before it looks again.
      TURN_SECONDS = 0.05

      # The connection takes no calls, or no more of them. Nothing has been sent.
      class Unusable < Error
      end

      # A call in progress; a notification has no id. alone: nobody has read since the last one ended. ready: signalled
      # when there is an answer, when it is this call's turn to read, or when no answer can come.
      Call = Struct.new(:id, :alone, :answer, :ready)

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
        @reader = nil        # the call whose thread reads
        @used = false
        @lost = nil          # why no answer can come
        @stopping = nil      # what the server says of its end: a connection for no further call
      end

      # Whether a call may be tried.
      def usable?
        !@lost && !@stopping
      end

      def lost?
        !@lost.nil?
      end

      # Raises Unusable, or as Client#call does.
      def call(name, arguments, deadline)
        call = begin_call(false)
        begin
          find_end if call.alone
          write(call, [call.id, name, arguments], deadline)
          wait(call, deadline)
        ensure
          end_call(call)
        end
        raise ConnectionLost, @lost unless call.answer
        _, error, result = call.answer
        raise RemoteError.new(*error) if error
        result
      end

      # Likewise.
      def notify(name, arguments, deadline)
        call = begin_call(true)
        begin
          find_end if call.alone
          write(call, [nil, name, arguments], deadline)
        ensure
          end_call(call)
        end
        nil
      end

      # Ends the connection, and all calls on it.
      def lose(reason)
        @lock.synchronize do
          return if @lost
          @lost = reason
          @calls.each_value { |call| call.ready.signal if call.ready }
          @reader && @socket.respond_to?(:shutdown) ? shut_down : close
        end
      end

      private

      # Raises Unusable unless a call may be tried.
      def begin_call(notification)
        @lock.synchronize do
          check_usable
          call = Call.new(notification ? nil : next_id, @used && @calls.empty? && !@reader)
          @used = true
          @calls[call.id] = call unless notification
          @reader ||= call
          call
        end
      end

      # After a wrap, a call that waits may still have the next one.
      def next_id
        begin
          @last_id = @last_id % Envelope::MAX_ID + 1
        end while @calls.key?(@last_id)
        @last_id
      end

      # That the server has gone while no call was waiting is found here, before a request is lost.
      def find_end
        read_chunk
        check_usable
      end

      def check_usable
        raise Unusable, @lost || @stopping[1] unless usable?
      end

      def end_call(call)
        unused = @lock.synchronize do
          @calls.delete(call.id)
          pass_on_reading if @reader.equal?(call)
          @stopping && @calls.empty?
        end
        lose("the server is stopping") if unused
      end

      # Another call goes on reading. One that does not wait yet will look for itself.
      def pass_on_reading
        @reader = nil
        return close if @lost
        @calls.each_value do |call|
          next unless call.ready && !call.answer
          @reader = call
          return call.ready.signal
        end
      end

      def write(call, request, deadline)
        @sending.synchronize do
          rest = bytes = @encoder.frame(request)
          begin
            rest = unsent(bytes)
            write_rest(call, rest, deadline) unless rest.empty?
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
        return bytes unless sent.is_a?(Integer)
        sent == bytes.bytesize ? "" : bytes.byteslice(sent..-1)
      end

      def write_rest(call, bytes, deadline)
        until bytes.empty?
          left = deadline - Clock.now
          raise Errno::ETIMEDOUT, "the server takes nothing" unless left > 0
          wait_writable(call, left)
          bytes = unsent(bytes)
        end
      end

      # A server may take no more requests before its answers are read, so this reads too, unless another thread does.
      def wait_writable(call, seconds)
        if reader?(call)
          readable, = Interrupts.allow { IO.select([@socket], [@socket], nil, seconds) }
          read_chunk if readable && !readable.empty?
        else
          Interrupts.allow { IO.select(nil, [@socket], nil, [seconds, TURN_SECONDS].min) }
        end
      end

      # Returns when the call has its answer, or the connection is lost.
      def wait(call, deadline)
        until call.answer || @lost
          seconds = deadline - Clock.now
          raise TimedOut, "no answer in time" unless seconds > 0
          if @reader.equal?(call)
            # Before Ruby 2.3 the result does not tell the end of input from a timeout.
            Interrupts.allow { @socket.wait_readable(seconds) }
            read_chunk
          else
            wait_for_reader(call, seconds)
          end
        end
      end

      def wait_for_reader(call, seconds)
        @lock.synchronize do
          next if call.answer || @lost
          next @reader = call unless @reader
          call.ready ||= ConditionVariable.new
          Interrupts.allow { call.ready.wait(@lock, seconds) } unless @reader.equal?(call)
        end
      end

      # Whether this call's thread reads, as it does when no other has to.
      def reader?(call)
        @lock.synchronize { (@reader ||= call).equal?(call) }
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
        id, error, = answer
        call = @calls[id]
        return if call.nil? || call.answer
        @stopping = error if error && error[0] == Envelope::STOPPING
        return call.answer = answer if @reader.equal?(call) # this thread's own
        @lock.synchronize do
          call.answer = answer
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
