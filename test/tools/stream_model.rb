# frozen_string_literal: true

# A model of a receiver that resets its frame after every frame and every error, in as little code as possible.
module StreamModel
  # `size` is what the frame consumes. A header that fails its check byte has no seq and no length.
  Frame = Struct.new(:layout, :seq, :length, :error, :size)

  module_function

  # Returns the frames, complete or failed, and how many bytes were skipped.
  def read(stream)
    frames, skipped, pos = [], 0, 0
    loop do
      marker = stream.index("\xA5".b, pos)
      return [frames, skipped + stream.bytesize - pos] unless marker
      skipped += marker - pos
      frame = frame_at(stream, marker)
      return [frames, skipped] unless frame
      frames << frame
      pos = marker + frame.size
    end
  end

  # Nil: it is incomplete.
  def frame_at(stream, pos)
    header = stream.byteslice(pos, 12)
    return if header.bytesize < 2
    layout = header.getbyte(1).odd? ? 8 : 12
    return if header.bytesize < layout
    return Frame.new(layout, nil, nil, "Bad Header CRC", layout) if layout == 12 && header.getbyte(11) != 0x5A
    seq, length = header.unpack("x2nN")
    length >>= 8 if layout == 12
    return Frame.new(layout, seq, length, "Payload size exceeds soft limit", layout) if length > 0x7FFFFFFF
    return if stream.bytesize - pos < layout + length
    bad = layout == 12 && header.byteslice(7, 4) != "\xDE\xAD\xBE\xEF".b
    Frame.new(layout, seq, length, bad ? "Bad Payload Data CRC" : nil, layout + length)
  end
end
