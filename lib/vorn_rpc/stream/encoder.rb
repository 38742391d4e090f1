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
      # strict_integers:: refuse Integers that would be cut to their low 32 bits. Without it they are cut silently;
      #                   looking at every Integer takes time
      #
      #   VORN::Stream::Encoder.new.frame(5_000_000_000)  # raises RangeError "5000000000 would be cut to 32 bits"
      #   VORN::Stream::Encoder.new(max_length: 4).frame("a text")  # raises VORN::Stream::MessageTooLarge
      #
      # Raises ArgumentError for a max_length that no header can announce.
      def initialize(max_length: MAX_LENGTH, twelve_byte_header: false, strict_integers: true)
        @frame = PROTO::PacketFrameOut.new
        @frame.use_12byte_header = twelve_byte_header
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
        messages.each { |message| @frame << message }
        # Behind the encoding, which ends for what contains itself.
        messages.each { |message| check_integers(message) } if @strict_integers
        length = @frame.pos - @frame.configured_header_len
        if length > @max_length
          raise MessageTooLarge, "a frame of #{length} bytes, #{@max_length} are allowed"
        end
        bytes = @frame.compute_frame_header.to_str
        @frame.inc_seq
        bytes
      end

      private

      # Integers between these fit 32 bits.
      LEAST = -2**31
      MOST = 2**31 - 1
      # Others than these are on the heap, and written in full.
      LEAST_IMMEDIATE = -2**(0.size * 8 - 2)
      MOST_IMMEDIATE = 2**(0.size * 8 - 2) - 1
      private_constant :LEAST, :MOST, :LEAST_IMMEDIATE, :MOST_IMMEDIATE

      # Most members are Strings, which need no call.
      def check_integers(value)
        if Integer === value
          refuse(value) if value > MOST || value < LEAST
        elsif Array === value
          value.each { |member| check_integers(member) unless String === member }
        elsif Hash === value
          value.each do |key, member|
            check_integers(key) unless String === key
            check_integers(member) unless String === member
          end
        end
      end

      def refuse(integer)
        return if integer > MOST_IMMEDIATE || integer < LEAST_IMMEDIATE
        raise RangeError, "#{integer} would be cut to 32 bits"
      end
    end
  end
end
