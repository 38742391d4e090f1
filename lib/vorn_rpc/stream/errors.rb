# frozen_string_literal: true

module VORN
  module Stream
    # What all errors of this module are, except for those that the codec raises.
    class Error < StandardError
    end

    # The peer's bytes are not frames of values, or exceed this side's limits. A socket loses no bytes, so the peer is
    # at fault and what follows is no better: close the connection.
    class DamagedStream < Error
      # Where the damage begins: bytes since the beginning of the stream.
      #
      #   VORN::Stream::DamagedStream.new("a reason", 7).offset  # => 7
      attr_reader :offset

      def initialize(reason, offset)
        super("#{reason} (at byte #{offset} of the stream)")
        @offset = offset
      end
    end

    # The stream has ended in the middle of a frame, which begins at #offset.
    class TruncatedStream < DamagedStream
    end

    # A frame to be sent would exceed the limit.
    class MessageTooLarge < Error
    end

    # Bytes that a Decoder has passed over because they could not be read.
    class Damage
      # What was wrong with the first of the bytes.
      #
      #   VORN::Stream::Damage.new("a reason", 7, 3).reason  # => "a reason"
      attr_reader :reason

      # Where the first of them stands: bytes since the beginning of the stream.
      #
      #   VORN::Stream::Damage.new("a reason", 7, 3).offset  # => 7
      attr_reader :offset

      # How many there are.
      #
      #   VORN::Stream::Damage.new("a reason", 7, 3).bytes  # => 3
      attr_reader :bytes

      def initialize(reason, offset, bytes) # :nodoc:
        @reason = reason
        @offset = offset
        @bytes = bytes
      end

      # For logs.
      #
      #   VORN::Stream::Damage.new("noise", 7, 3).to_s  # => "noise (3 bytes skipped, from byte 7 of the stream on)"
      def to_s
        "#{reason} (#{bytes} bytes skipped, from byte #{offset} of the stream on)"
      end
    end
  end
end
