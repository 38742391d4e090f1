# frozen_string_literal: true

module VORN
  module RPC
    # A server's side of one connection: its messages, and what limits them. Only the server's loop reads and closes;
    # threads that have worked on a request write their answer themselves when the kernel takes it.
    class ServerConnection # :nodoc:
      CHUNK = 65_536
      JOINED = 16_384

      attr_reader :io, :name

      def initialize(io, limits, methods, now, handshake = false)
        @io = io
        @name = Address.name_of(io)
        @limits = limits
        @methods = methods
        @decoder = Stream::Decoder.new(max_length: limits.max_length, max_depth: limits.max_depth)
        @patience = Patience.new(limits.idle_seconds, limits.frame_seconds, now)
        @taken = 0        # requests
        @lock = Mutex.new # guards what follows
        @encoder = Stream::Encoder.new(max_length: limits.max_length)
        @finished = 0     # requests that were taken
        @unsent = []      # Strings of answers' bytes that the kernel has not taken, and how many bytes they are
        @unsent_size = 0
        @batch = 0        # so many of them have to be taken until
        @write_deadline = nil
        @failure = nil    # why nothing can be sent any more
        @ending = false
        @begun = 0        # requests in this turn
        @held_back = nil  # a request that may not be begun yet
        @whole = false    # a frame has been completed since the patience was told
        @handshake = handshake # TLS has to begin yet
        @blocked_reading = false
      end

      # Reads what has arrived, and yields each request that may be begun now. Returns false at the end of input.
      # Raises DamagedStream, BadMessage, and what the IO raises. Overwrites the buffer, which connections share: a
      # thousand silent ones would keep 64 MB.
      def receive(buffer, now, &block)
        return true if @handshake && !accept_handshake
        chunk = @io.read_nonblock(CHUNK, buffer, exception: false)
        @blocked_reading = chunk == :wait_writable
        return true if chunk.is_a?(Symbol)
        return false unless chunk
        begin_requests(now, chunk, &block)
        true
      rescue EOFError # Ruby 2.2
        false
      end

      # Yields the requests that were held back and may be begun now.
      def continue(now, &block)
        begin_requests(now, &block)
      end

      # A request has arrived that may not be begun before others are answered: nothing more is read.
      def held_back?
        !@held_back.nil?
      end

      # Whether one of them may be begun now.
      def room?
        !full?
      end

      # Sends the answer to a request, nil for none. Returns whether the loop has something to do: bytes to send, a
      # request to begin, or a connection to close.
      def finish(answer)
        @lock.synchronize do
          send_answer(answer) if answer && !@failure
          @finished += 1
          @held_back || @failure || @ending || !@unsent.empty?
        end
      end

      # Whether the request need not be worked on: its answer cannot be sent.
      def gone?
        @failure
      end

      # Sends what the kernel takes. Raises what the IO raises.
      def flush
        @lock.synchronize { write_some }
      end

      # Whether TLS has to write before it can read on.
      def blocked_reading?
        @blocked_reading
      end

      def wants_write?
        @blocked_reading || !@unsent.empty?
      end

      # Raises what has ended the connection meanwhile, or a deadline that has passed.
      def check(now)
        raise @failure if @failure
        deadline = @write_deadline # which a worker may move meanwhile
        raise Errno::ETIMEDOUT, "the client takes nothing" if deadline && now >= deadline
        @patience.check(in_progress > 0 || !@unsent.empty?, now) unless @held_back
      end

      # The server ends: it wants to know of each answer, and refuses what is held back.
      def read_no_more
        @ending = true
      end

      # Whether all that was read is answered, and sent.
      def finished?
        @lock.synchronize { @failure || (@held_back.nil? && in_progress.zero? && @unsent.empty?) }
      end

      def close
        @lock.synchronize { @failure ||= EOFError.new }
        @io.close
      rescue *MethodTable::FAILURES # of whatever IO this is
        nil
      end

      private

      # Passes on requests until one has to be held back.
      def begin_requests(now, chunk = nil, &start)
        @begun = 0
        request = @held_back
        @held_back = nil
        return unless request.nil? || begin_request(request, &start)
        if chunk
          @decoder.feed_each(chunk) { |one| break unless begin_request(one, &start) }
        else
          @decoder.each { |one| break unless begin_request(one, &start) }
        end
        return if @held_back
        @patience.heard(@whole, @decoder.between_frames?, now)
        @whole = false
      end

      # Returns false if the request is held back. A client that sends more than its share waits for its next turn, even
      # if its requests are answered at once.
      def begin_request(request)
        Envelope.check_request(request)
        @whole = true
        unless take_place
          @held_back = request
          return false
        end
        yield request
        true
      end

      # Whether one more request may be in progress, which is then counted.
      def take_place
        return false if (@begun >= @limits.max_in_progress || full?) && !@ending
        @taken += 1
        @begun += 1
        true
      end

      def accept_handshake
        result = @io.accept_nonblock(exception: false)
        @blocked_reading = result == :wait_writable
        @handshake = result.is_a?(Symbol)
        !@handshake
      end

      def full?
        in_progress >= @limits.max_in_progress || @unsent_size > @limits.max_unsent
      end

      # Requests that are not answered yet. Two counts, since the loop changes one and the workers the other.
      def in_progress
        @taken - @finished
      end

      def send_answer(answer)
        bytes = @methods.frame(@encoder, answer)
        if @unsent.empty?
          sent = write_nonblock(bytes)
          return if sent == bytes.bytesize
          keep(bytes.byteslice(sent..-1))
          next_batch
        else
          keep(bytes)
        end
      rescue *MethodTable::FAILURES => e # the loop ends the connection
        @failure = e
      end

      # Small Strings are joined: each is a write of its own.
      def keep(bytes)
        last = @unsent.last
        last && last.bytesize < JOINED ? last << bytes : @unsent << bytes
        @unsent_size += bytes.bytesize
      end

      # Until the kernel takes no more.
      def write_some
        until @unsent.empty?
          bytes = @unsent.first
          sent = write_nonblock(bytes)
          @unsent_size -= sent
          @batch -= sent
          sent == bytes.bytesize ? @unsent.shift : @unsent[0] = bytes.byteslice(sent..-1)
          next_batch if @batch <= 0
          return if sent < bytes.bytesize
        end
      end

      # The deadline is for all that waits now: a peer that reads a byte now and then would move one per write.
      def next_batch
        @batch = @unsent_size
        @write_deadline = @unsent.empty? ? nil : Clock.now + @limits.write_seconds
      end

      # How many bytes the kernel took.
      def write_nonblock(bytes)
        sent = @io.write_nonblock(bytes, exception: false)
        sent.is_a?(Integer) ? sent : 0
      end
    end
  end
end
