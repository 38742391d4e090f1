# frozen_string_literal: true

module VORN
  module Stream
    # Messages to anything whose `write` takes all bytes that it is given: a socket, a pipe, a file, StringIO, TLS.
    # Nothing is held back here; what the IO holds back is its own.
    #
    #   io = StringIO.new("".b)
    #   VORN::Stream::Writer.new(io) << 1 << "two"
    #   io.rewind
    #   VORN::Stream::Reader.new(io).to_a  # => [1, "two"]
    #
    # Threads that share one need a lock: frames must not be sent in another order than they were numbered.
    class Writer
      # What the messages are written to.
      #
      #   VORN::Stream::Writer.new($stdout).io.equal?($stdout)  # => true
      attr_reader :io

      # The options are those of Encoder.new.
      #
      #   VORN::Stream::Writer.new(StringIO.new, max_length: 1) << [1]  # raises VORN::Stream::MessageTooLarge
      def initialize(io, **options)
        @io = io
        @encoder = Encoder.new(**options)
      end

      # Writes the messages in one frame. Raises as Encoder#frame does, before anything is written, and what the IO
      # raises.
      #
      #   io = StringIO.new("".b)
      #   VORN::Stream::Writer.new(io).write(nil, true)
      #   io.string  # => "\xA5\x01\x00\x00\x00\x00\x00\x02\x00\x02"
      def write(*messages)
        @io.write(@encoder.frame(*messages))
        self
      end

      # Writes a message in a frame of its own.
      #
      #   io = StringIO.new("".b)
      #   VORN::Stream::Writer.new(io) << nil << true
      #   io.string.bytesize  # => 18
      def <<(message)
        write(message)
      end
    end
  end
end
