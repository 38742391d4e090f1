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

# The peer's bytes are not this protocol, or exceed this side's limit.
class BadFrame < StandardError; end

# The message exceeds the limit that both sides agreed upon.
class MessageTooLarge < StandardError; end

# Splits a stream that arrives in chunks of any size into messages.
class FrameReader
  include VORN::PROTO

  START = "\xA5".b.freeze
  START_BYTE = START.getbyte(0)

  # A damaged stream raises BadFrame, after which the connection can only be closed: sockets lose no bytes, so the peer
  # is at fault and the following bytes are no better. Where bytes do get lost (a serial line, a truncated file), give a
  # block: it receives the reason, and reading continues at the next frame.
  def initialize(max_payload, &damaged)
    @max_payload = max_payload
    @damaged = damaged || ->(reason) { raise BadFrame, reason }
    @frame = PacketFrameIn.new.reset
    @held = "".b  # an incomplete header
    @header = nil # of the current frame
  end

  # Yields the message of each frame that chunk, a binary String, completes.
  def feed(chunk)
    data = chunk
    unless @held.empty?
      data = @held + chunk
      @held = "".b
    end
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
        # The frame failed its checks. The next frame may begin anywhere after this one's first byte, even inside it.
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

  # Checks the header before the assembler does. The assembler trusts the announced length and allocates it at once, up
  # to 2 GiB: eight bytes from any client would cost that much memory.
  def accept_header(data, offset)
    start = data.getbyte(offset) == START_BYTE ? offset : data.index(START, offset)
    skipped = (start || data.bytesize) - offset
    @damaged.call("#{skipped} bytes that belong to no frame") if skipped > 0
    return data.bytesize unless start

    left = data.bytesize - start
    short = left > 1 && data.getbyte(start + 1).odd?
    header_len = short ? PacketFrame::PF8_HEADER_LEN : PacketFrame::PF12_HEADER_LEN
    if left < header_len
      @held = data.byteslice(start, left)
      return data.bytesize
    end
    # The length is in bytes 4 to 7 or, with 12 bytes, in 4 to 6.
    payload_len = data.getbyte(start + 4) << 16 | data.getbyte(start + 5) << 8 | data.getbyte(start + 6)
    payload_len = payload_len << 8 | data.getbyte(start + 7) if short
    if payload_len > @max_payload
      @damaged.call("a frame announces #{payload_len} bytes, #{@max_payload} are accepted")
      return start + 1
    end
    @header = data.byteslice(start, header_len)
    @frame_len = header_len + payload_len
    start
  end

  # Returns the frame's value, or nil and the fault. The position must end at the frame's end: a string's announced
  # length may reach beyond it, into bytes that an earlier frame left in the buffer.
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

# Turns messages into frames, one at a time: a writer has one buffer and one sequence number.
class FrameWriter
  def initialize(max_payload)
    @max_payload = max_payload
    @frame = VORN::PROTO::PacketFrameOut.new
  end

  # Returns the bytes to send. Raises MessageTooLarge, and RuntimeError for a value that cannot be encoded.
  #
  # Beware of Integers: immediate Integers (up to 2**62) are silently cut to their low 32 bits. Send larger numbers as
  # Strings or Floats.
  def frame(message)
    @frame.reset # also drops the remains of a failed call
    @frame << message
    size = @frame.pos - @frame.configured_header_len
    raise MessageTooLarge, "a message of #{size} bytes, #{@max_payload} are allowed" if size > @max_payload

    bytes = @frame.compute_frame_header.to_str
    @frame.inc_seq # lets a capture reveal lost frames
    bytes
  end
end
