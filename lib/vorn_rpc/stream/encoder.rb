# frozen_string_literal: true

module VORN
  module Stream
    # Turns messages into the bytes of frames. Does no output.
    #
    #   encoder = VORN::Stream::Encoder.new
    #   encoder.frame([1, "echo", ["hello"]]).bytesize  # => 26
    class Encoder
      # max_length::      the most payload bytes of a frame: what the peer's limit accepts
      # twelve_byte_header:: the longer header, whose check bytes make a frame easier to find again behind damage
      # strict_integers:: refuse Integers that would be cut to their low 32 bits. Without it they are cut silently,
      #                   and large values are encoded in about four fifths of the time
      #
      #   VORN::Stream::Encoder.new.frame(5_000_000_000)  # raises RangeError "5000000000 would be cut to 32 bits"
      #   VORN::Stream::Encoder.new(max_length: 4).frame("a text")  # raises VORN::Stream::MessageTooLarge
      #
      # Raises ArgumentError for a max_length that no header can announce.
      def initialize(max_length: MAX_LENGTH, twelve_byte_header: false, strict_integers: true)
        @frame = PROTO::PacketFrameOut.new
        @frame.use_12byte_header = twelve_byte_header
        @header_length = @frame.configured_header_len
        @max_length = [Stream.length_limit(max_length), @frame.configured_max_data_len].min
        @strict_integers = strict_integers
      end

      # The bytes of a frame with these messages, which is the next by its sequence number.
      #
      # Raises MessageTooLarge, RangeError for an Integer that would be cut, or does not fit 64 bits, and RuntimeError
      # for what cannot be encoded. The encoder can still be used.
      #
      #   VORN::Stream::Encoder.new.frame(true)  # => "\xA5\x01\x00\x00\x00\x00\x00\x01\x02".b
      def frame(*messages)
        @frame.reset # passes over the header, and over the remains of a call that failed
        messages.size == 1 ? @frame << messages[0] : messages.each { |message| @frame << message }
        # Behind the encoding, which ends for what contains itself.
        Native.check_integers(messages) if @strict_integers
        length = @frame.pos - @header_length
        if length > @max_length
          raise MessageTooLarge, "a frame of #{length} bytes, #{@max_length} are allowed"
        end
        bytes = @frame.compute_frame_header.to_str
        @frame.inc_seq
        bytes
      end
    end
  end
end
