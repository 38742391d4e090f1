# frozen_string_literal: true

# Messages on a byte stream: one value in each frame. Copy this file into your service. It does no input or output,
# so it serves threads, fibers and files alike.
#
#   writer = FrameWriter.new(LIMIT)
#   socket.write(writer.frame([1, "echo", ["hello"]]))
#
#   reader = FrameReader.new(LIMIT)
#   reader.feed(socket.readpartial(65_536)) { |message| ... } while true

require "vorn_rpc"

# What the peer sent is not this protocol, or is more than this side takes.
class BadFrame < StandardError; end

# The message does not fit the limit that both sides agreed upon.
class MessageTooLarge < StandardError; end

# Cuts a stream that arrives in chunks of any size into messages.
class FrameReader
  include VORN::PROTO

  START = "\xA5".b.freeze

  # A damaged stream raises BadFrame, after which the connection can only be closed: on a socket nothing is lost on
  # the way, so the peer is at fault and what follows is no better. Where bytes do get lost (a serial line, a file
  # cut short) give a block: it is told what was wrong, and reading goes on at the next frame.
  def initialize(max_payload, &damaged)
    @max_payload = max_payload
    @damaged = damaged || ->(reason) { raise BadFrame, reason }
    @frame = PacketFrameIn.new.reset
    @held = "".b  # the beginning of a header that has not arrived whole
    @header = nil # of the frame in progress
  end

  # Yields the message of each frame that chunk, a binary String, completes.
  def feed(chunk)
    data = @held.empty? ? chunk : @held + chunk
    @held = "".b
    offset = 0
    while offset < data.bytesize
      unless @header
        offset = accept_header(data, offset)
        next
      end
      taken = @frame.assemble(data, offset)
      offset += taken
      if @frame.have_complete_frame?
        message, damage = read_message
        next_frame
        damage ? @damaged.call(damage) : yield(message)
      elsif taken.zero? || @frame.pos == @frame_len
        # The frame failed its checks. Only the stream behind its first byte is certain not to begin with it again.
        data = failed_bytes.byteslice(1..-1) + data.byteslice(offset..-1)
        offset = 0
        next_frame
        @damaged.call("a frame failed its checks")
      end
    end
  end

  # Whether the stream may end here.
  def between_frames?
    @header.nil? && @held.empty?
  end

  private

  # Looks at the header before the assembler does. The assembler takes the announced length at its word and makes
  # room for it at once, up to 2 GiB: eight bytes from anybody would cost that much memory.
  def accept_header(data, offset)
    start = data.index(START, offset)
    skipped = (start || data.bytesize) - offset
    @damaged.call("#{skipped} bytes that belong to no frame") if skipped > 0
    return data.bytesize unless start

    header = data.byteslice(start, PacketFrame::PF12_HEADER_LEN)
    short = header.bytesize > 1 && header.getbyte(1)[0] == 1
    header_len = short ? PacketFrame::PF8_HEADER_LEN : PacketFrame::PF12_HEADER_LEN
    if header.bytesize < header_len
      @held = header
      return data.bytesize
    end
    # The length is in bytes 4 to 7 or, with 12 bytes, in 4 to 6.
    payload_len = header.unpack("@4N")[0]
    payload_len >>= 8 unless short
    if payload_len > @max_payload
      @damaged.call("a frame announces #{payload_len} bytes, #{@max_payload} are accepted")
      return start + 1
    end
    @header = header.byteslice(0, header_len)
    @frame_len = header_len + payload_len
    start
  end

  # The frame's value, or nil and what is wrong with it. The position must end where the frame does: a string's
  # announced length may reach beyond, into what an earlier frame left in the buffer.
  def read_message
    message = @frame.seek_payload_start.extract_object
    return [message, nil] if @frame.pos == @frame_len

    [nil, "a frame holds something else than one message"]
  rescue RuntimeError => e
    [nil, e.message]
  end

  def failed_bytes
    @frame.payload_size.zero? ? @header : @frame.to_str
  end

  def next_frame
    @frame.reset
    @header = nil
  end
end

# Turns messages into frames. One at a time: a writer has one buffer and one sequence number.
class FrameWriter
  def initialize(max_payload)
    @max_payload = max_payload
    @frame = VORN::PROTO::PacketFrameOut.new
  end

  # The bytes to send. Raises MessageTooLarge, and RuntimeError for a value that cannot be encoded.
  #
  # Beware of Integers: one that Ruby holds immediately (up to 2**62) is written as its low 32 bits, without an
  # error. Larger numbers travel as Strings or Floats.
  def frame(message)
    @frame.reset # also drops what a failed call left behind
    @frame << message
    size = @frame.pos - @frame.configured_header_len
    raise MessageTooLarge, "a message of #{size} bytes, #{@max_payload} are allowed" if size > @max_payload

    bytes = @frame.compute_frame_header.to_str
    @frame.inc_seq # lets a capture show what is missing
    bytes
  end
end
