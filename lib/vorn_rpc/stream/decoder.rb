# frozen_string_literal: true

module VORN
  module Stream
    # Turns the bytes of a stream, in chunks of any size, into messages. Does no input.
    #
    #   decoder = VORN::Stream::Decoder.new
    #   bytes = VORN::Stream::Encoder.new.frame([1, "ping"])
    #   decoder.feed_each(bytes[0, 10]).to_a   # => []
    #   decoder.feed_each(bytes[10..-1]).to_a  # => [[1, "ping"]]
    #
    # How the stream was cut into chunks makes no difference to what comes out.
    class Decoder
      include Enumerable

      # Counts since the decoder was made.
      #
      # bytes::    given to the decoder
      # frames::   whole ones whose messages could be read, empty ones included
      # messages:: in these frames
      # skipped::  bytes that belonged to none of them
      # damages::  runs of skipped bytes
      Statistics = Struct.new(:bytes, :frames, :messages, :skipped, :damages)

      # The sequence number of the frame that held the last message, nil before the first.
      #
      #   decoder = VORN::Stream::Decoder.new
      #   encoder = VORN::Stream::Encoder.new
      #   decoder.feed_each(encoder.frame(1) + encoder.frame(2)).map { decoder.seq }  # => [0, 1]
      attr_reader :seq

      # max_length::       the most payload bytes that a frame may announce. So much, and what the values in it become,
      #                    is what a peer can make this side keep
      # max_depth::        levels of a message, scalars included
      # preserve_symbols:: Symbols for symbols; otherwise Strings, so that a peer cannot fill the symbol table
      #
      # Without a block, bytes that are no frames of values raise DamagedStream, and the decoder is of no more use.
      #
      # With a block the decoder skips them and goes on at the next frame, for media that lose bytes: a serial line, a
      # file that was cut. The block receives the Damage before the first message behind it. Do not give one for
      # connections to programs that you do not trust: bytes inside a damaged frame may then be taken for frames.
      #
      #   bytes = "noise" + VORN::Stream::Encoder.new.frame(1)
      #   VORN::Stream::Decoder.new.feed_each(bytes).to_a  # raises VORN::Stream::DamagedStream
      #   skipped = []
      #   VORN::Stream::Decoder.new { |damage| skipped << damage.bytes }.feed_each(bytes).to_a  # => [1]
      #   skipped  # => [5]
      #
      # Raises ArgumentError for a max_length that no header can announce.
      def initialize(max_length: MAX_LENGTH, max_depth: MAX_DEPTH, preserve_symbols: false, &on_damage)
        @max_length = Stream.length_limit(max_length)
        @on_damage = on_damage
        @frame = PROTO::PacketFrameIn.new.reset
        @frame.maxdepth = max_depth
        @frame.preserve_symbols_on_extract = preserve_symbols
        @messages = []     # of the last frame, not yielded yet
        @input = NOTHING   # what is not read yet begins at @offset
        @offset = 0
        @callers = false   # whether @input is the String that the caller gave
        @input_begins = 0  # in the stream
        @frame_begins = nil # likewise, while a frame is being assembled
        @frame_length = 0
        @frames = @read = @skipped = @damages = 0 # see Statistics
        @damage = nil  # the run of skipped bytes before what comes next
        @failure = nil # what has ended the stream
      end

      # Takes bytes, and yields each message of each frame that they complete. A frame is delivered whole or not at all.
      # What the block raises, or leaves behind by `break`, stays for the next call.
      #
      # Without a block, returns an Enumerator, which takes the bytes when it is used.
      #
      #   VORN::Stream::Decoder.new.feed_each(VORN::Stream::Encoder.new.frame(1, [2])).to_a  # => [1, [2]]
      #
      # Raises DamagedStream; TypeError for what is no String; what reading a value raises (SystemStackError with a
      # raised max_depth, NoMemoryError, an error of a key's own `hash`), after which that frame is lost; and
      # RuntimeError where there is no memory for a payload: that frame is still to be read.
      def feed_each(bytes, &block)
        return enum_for(:feed_each, bytes) unless block_given?
        messages = take_frame(bytes)
        if messages.nil?
          take(bytes)
        elsif messages.size == 1
          yield messages[0]
          return self if @input.empty? && @messages.empty? # the block has fed nothing
        else
          @messages = messages
        end
        begin
          each(&block)
        ensure
          keep_rest # the caller may reuse the String
        end
      end

      # Takes bytes, whose messages #each will yield. Raises as feed_each does.
      #
      #   decoder = VORN::Stream::Decoder.new
      #   decoder.feed(VORN::Stream::Encoder.new.frame("ping"))
      #   decoder.first  # => "ping"
      def feed(bytes)
        take(bytes)
        keep_rest
        self
      end

      # Yields the messages that are complete, as feed_each does.
      #
      #   decoder = VORN::Stream::Decoder.new
      #   decoder.feed(VORN::Stream::Encoder.new.frame(1)).feed(VORN::Stream::Encoder.new.frame(2))
      #   decoder.each.to_a  # => [1, 2]
      def each
        return enum_for(:each) unless block_given?
        raise @failure if @failure && @messages.empty?
        begin
          yield @messages.shift until @messages.empty?
        end while next_frame
        self
      end

      # Says that the stream has ended, when all messages have been taken. In the middle of a frame that raises
      # TruncatedStream; with a block to #new the block receives the rest as Damage.
      #
      #   VORN::Stream::Decoder.new.feed("\xA5\x01").finish  # raises VORN::Stream::TruncatedStream
      def finish
        raise @failure if @failure
        begins = @frame_begins || @input_begins + @offset
        missed = @input_begins + @input.bytesize - begins
        if missed > 0
          skip(missed, "the stream ends in the middle of a frame", begins, TruncatedStream)
          @offset = @input.bytesize
          @frame_begins = nil
        end
        report_damage if @damage
        self
      end

      # The Statistics as they are now.
      #
      #   decoder = VORN::Stream::Decoder.new
      #   decoder.feed_each(VORN::Stream::Encoder.new.frame(1, 2)).to_a
      #   decoder.statistics.messages  # => 2
      def statistics
        Statistics.new(@input_begins + @input.bytesize, @frames, @read, @skipped, @damages)
      end

      # Whether the stream may end here: no frame has begun that is not complete.
      #
      #   VORN::Stream::Decoder.new.feed("\xA5\x01").between_frames?  # => false
      def between_frames?
        @frame_begins.nil? && @offset == @input.bytesize
      end

      private

      NOTHING = "".b.freeze
      START = [0xA5].pack("C").freeze

      # What reading raises for bytes that are no value. Of a subclass are errors of the program: of a key's own `hash`,
      # or of another thread, such as a Timeout's.
      module Unreadable # :nodoc:
        def self.===(error)
          error.instance_of?(RuntimeError) || error.instance_of?(EncodingError)
        end
      end
      private_constant :NOTHING, :START, :Unreadable

      # Takes bytes that are a frame, no more and no less, when nothing is left from before. Returns nil for others, and
      # for a frame that cannot be read: #take and #next_frame say what is wrong with those.
      def take_frame(bytes)
        return if @frame_begins || @damage || @failure || !@input.empty? || !@messages.empty?
        messages = Native.read_frame(@frame, bytes, @max_length)
        return unless messages
        @input_begins += bytes.bytesize
        note(messages)
        messages
      rescue Unreadable, SystemStackError, NoMemoryError
        nil
      end

      def take(bytes)
        raise @failure if @failure
        raise TypeError, "bytes must be a String" unless bytes.is_a?(String)
        bytes = bytes.b unless bytes.encoding == Encoding::BINARY
        keep_rest
        @callers = @input.empty?
        @input = @callers ? bytes : @input << bytes
      end

      # Leaves the caller's String, and what has been read.
      def keep_rest
        return if @offset == 0 && !@callers
        @callers = false
        @input_begins += @offset
        @input = @offset == @input.bytesize ? NOTHING : @input.byteslice(@offset..-1)
        @offset = 0
      end

      # Reads on, and returns true when a frame has been completed; false when more bytes are needed.
      def next_frame
        while @offset < @input.bytesize
          unless @frame_begins
            length = Native.frame_length(@input, @offset, @max_length)
            return false unless length
            next skip_to_start(length) if length.is_a?(String)
            @frame.reset
            @frame_begins = @input_begins + @offset
            @frame_length = length
          end
          assemble
          return true if @frame.have_complete_frame? && take_messages
        end
        false
      end

      def assemble
        @offset += @frame.assemble(@input, @offset)
      rescue StandardError, NoMemoryError # no memory for the payload: the header is read again
        @frame_begins = nil
        raise
      end

      # Skips what cannot begin a frame.
      def skip_to_start(reason)
        start = @input.index(START, @offset + 1) || @input.bytesize
        skip(start - @offset, reason, @input_begins + @offset)
        @offset = start
      end

      # Takes the messages of the frame that is complete. False: it could not be read.
      def take_messages
        messages = read_messages
        return false unless messages
        @messages = messages
        note(messages)
        report_damage if @damage
        true
      ensure
        @frame_begins = nil
      end

      def note(messages)
        @seq = @frame.seq
        @frames += 1
        @read += messages.size
      end

      # All of the frame's messages, or nil.
      def read_messages
        messages = []
        frame = @frame.seek_payload_start
        messages << frame.extract_object while (position = frame.pos) < @frame_length
        return messages if position == @frame_length
        # A string's length reaches behind the frame, into bytes that an earlier one has left there.
        skip(@frame_length, "a frame whose payload cannot be read: a value ends behind it", @frame_begins)
      rescue Unreadable => error
        skip(@frame_length, "a frame whose payload cannot be read: #{error.message}", @frame_begins)
      end

      # Counts bytes as skipped, which join those skipped just before, or ends the stream. Returns nil.
      def skip(bytes, reason, begins, error_class = DamagedStream)
        unless @on_damage
          @failure = error_class.new(reason, begins)
          raise @failure
        end
        first = @damage || Damage.new(reason, begins, 0)
        @damage = Damage.new(first.reason, first.offset, first.bytes + bytes)
        @skipped += bytes
        nil
      end

      def report_damage
        damage = @damage
        @damage = nil
        @damages += 1
        @on_damage.call(damage)
      end
    end
  end
end
