# frozen_string_literal: true

module VORN
  module Stream
    # Messages from anything that has `readpartial` or `read`: a socket, a pipe, a file, StringIO, TLS. Timeouts are the
    # program's, or the IO's own.
    #
    #   io = StringIO.new(VORN::Stream::Encoder.new.frame(1, "two"))
    #   VORN::Stream::Reader.new(io).map { |message| message }  # => [1, "two"]
    class Reader
      include Enumerable

      # How many bytes are asked for at once.
      CHUNK = 65_536

      # What the messages are read from.
      #
      #   VORN::Stream::Reader.new($stdin).io.equal?($stdin)  # => true
      attr_reader :io

      # The options and the block are those of Decoder.new.
      #
      #   io = StringIO.new(VORN::Stream::Encoder.new.frame(:ok))
      #   VORN::Stream::Reader.new(io, preserve_symbols: true).first  # => :ok
      def initialize(io, **options, &on_damage)
        @io = io
        @decoder = Decoder.new(**options, &on_damage)
      end

      # Yields each message until the stream ends. Between two frames that ends the iteration; in the middle of one it
      # raises TruncatedStream.
      #
      # Raises as Decoder#feed_each does, and what the IO raises. What has been read is not lost then: the next call
      # goes on behind the last message.
      #
      #   io = StringIO.new(VORN::Stream::Encoder.new.frame(1, 2, 3))
      #   VORN::Stream::Reader.new(io).each.to_a  # => [1, 2, 3]
      def each(&block)
        return enum_for(:each) unless block
        @decoder.each(&block)
        while (bytes = read_chunk)
          @decoder.feed_each(bytes, &block)
        end
        @decoder.finish
        self
      end

      # The next message. At the end of the stream raises EOFError, since nil is a message.
      #
      #   reader = VORN::Stream::Reader.new(StringIO.new(VORN::Stream::Encoder.new.frame(nil)))
      #   reader.read  # => nil
      #   reader.read  # raises EOFError "end of stream"
      def read
        messages = first(1)
        raise EOFError, "end of stream" if messages.empty?
        messages[0]
      end

      # See Decoder#statistics.
      #
      #   VORN::Stream::Reader.new(StringIO.new).statistics.frames  # => 0
      def statistics
        @decoder.statistics
      end

      # See Decoder#seq.
      #
      #   VORN::Stream::Reader.new(StringIO.new).seq  # => nil
      def seq
        @decoder.seq
      end

      private

      def read_chunk
        return @io.read(CHUNK) unless @io.respond_to?(:readpartial)
        @io.readpartial(CHUNK)
      rescue EOFError
        nil
      end
    end
  end
end
