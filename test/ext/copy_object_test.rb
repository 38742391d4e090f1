# frozen_string_literal: true

require_relative "helper"

class CopyObjectTest < ExtTest
  REFUSED = "packetbuf_copy_object: destination buffer must be PacketBuf or PacketFrameOut"

  class OwnBuf < PacketBuf
  end

  class OwnFrame < PacketFrameOut
  end

  def test_copies_byte_for_byte
    from = buf_of(Hex.decode("0a 81 0b 82"))
    to = PacketBuf.new
    assert_same from, from.copy_object(to)
    assert_equal ["0a 81 0b", 3, 3], [Hex.encode(to.to_str), from.pos, to.pos]
    from.copy_object(to)
    assert_equal ["0a 81 0b 82", 4, 4], [Hex.encode(to.to_str), from.pos, to.pos]
  end

  # Decoding and encoding would change these: negative zero, 32-bit floats, overlong varints, symbols, repeated keys.
  def test_copies_encodings_that_the_writer_never_produces
    ["c0", "03 3f c0 00 00", "a5 80 00", "06 01 61", "07 81 00 61", "08 81 82 81 83 09", "06 01 ff"].each do |text|
      to = PacketBuf.new
      buf_of(Hex.decode(text)).copy_object(to)
      assert_equal text, Hex.encode(to.to_str)
    end
  end

  def test_copies_values_of_any_size
    [0, 1, 100, 65_000, 65_535, 65_536, 200_000].each do |size|
      from = PacketBuf.new << ["x" * size]
      to = PacketBuf.new
      from.seek(0).copy_object(to)
      assert from.to_str == to.to_str, size
    end
  end

  def test_writes_at_the_destinations_position
    to = PacketBuf.new.write_raw("------").seek(2)
    buf_of(Hex.decode("07 01 61")).copy_object(to)
    assert_equal 5, to.pos
    assert_equal "2d 2d 07 01 61 2d", Hex.encode(to.seek(6).to_str)
    buf_of(Hex.decode("81")).copy_object(to.seek(8))
    assert_equal "2d 2d 07 01 61 2d 00 00 81", Hex.encode(to.to_str)
  end

  def test_copies_into_an_outbound_frame
    frame = PacketFrameOut.new.reset
    buf_of(Hex.decode("07 01 61")).copy_object(frame)
    assert_equal "a5 01 00 00 00 00 00 03 07 01 61", Hex.encode(frame.compute_frame_header.to_str)
  end

  def test_copies_from_any_class
    into = PacketBuf.new
    (OwnBuf.new << 1).seek(0).copy_object(into)
    frame = PacketFrameOut.new.reset << 2
    frame.seek(8).copy_object(into)
    assert_equal "81 82", Hex.encode(into.to_str)
  end

  def test_refuses_other_destinations
    singleton = PacketBuf.new
    def singleton.own; end
    refused = [nil, false, true, 1, 2**70, 1.5, :sym, "string", [], {}, Object.new, PacketBuf, Time.now, proc {},
               PacketFrameIn.new, OwnBuf.new, OwnFrame.new]
    from = buf_of("\x81")
    refused.each do |destination|
      assert_raises_with(RuntimeError, REFUSED) { from.copy_object(destination) }
      assert_equal 0, from.pos
    end
    from.copy_object(singleton)
    assert_equal "\x81".b, singleton.to_str, "a singleton class is no subclass"
  end

  def test_checks_the_destination_before_anything_else
    from = buf_of("")
    from.maxdepth = nil
    assert_raises_with(RuntimeError, REFUSED) { from.copy_object(nil) }
    assert_raises(TypeError) { from.copy_object(PacketBuf.new) }
  end

  def test_nothing_is_written_when_the_value_is_refused
    to = PacketBuf.new << 7
    from = buf_of(Hex.decode("0a 81 0a 7f"))
    unknown = "decode_next_packetbuf_rbobj: unrecognized protocol transport type"
    assert_raises_with(RuntimeError, unknown) { from.copy_object(to) }
    assert_equal [4, 1, "87"], [from.pos, to.pos, Hex.encode(to.to_str)]
    assert_equal 1, to.payload_size
  end

  def test_obeys_the_maxdepth_of_the_receiver
    from = buf_of(Hex.decode("0a 0a 81 0b 0b"))
    to = PacketBuf.new
    to.maxdepth = 0
    from.maxdepth = 2
    assert_raises_with(RuntimeError, "decode_next_packetbuf_rbobj: maxdepth exceeded") { from.copy_object(to) }
    from.maxdepth = 3
    from.seek(0).copy_object(to)
    assert_equal 5, to.pos
  end

  # The checking pass does not recurse, so any depth fits on the machine stack.
  def test_copies_values_of_any_depth
    bytes = "\x0a" * 1_000_000 + "\x0b" * 1_000_000
    from = buf_of(bytes)
    from.maxdepth = 2**31 - 1
    to = PacketBuf.new
    from.copy_object(to)
    assert to.to_str == bytes.b
  end

  # --- a buffer into itself ------------------------------------------------------------------------------

  def test_a_buffer_may_be_its_own_destination
    buf = buf_of(Hex.decode("0a 81 0b"))
    assert_same buf, buf.copy_object(buf)
    assert_equal ["0a 81 0b 0a 81 0b", 6], [Hex.encode(buf.to_str), buf.pos]
  end

  def test_its_own_bytes_may_be_overwritten
    buf = buf_of(Hex.decode("0a 81 0b 82 83 84 85"))
    buf.copy_object(buf)
    assert_equal "0a 81 0b 0a 81 0b 85", Hex.encode(buf.seek(7).to_str)
  end

  # The copy grows the storage, which moves the bytes that are being copied: beyond the initial 65536 bytes, and beyond
  # the next capacity.
  def test_its_own_storage_may_move
    [32_760, 32_768, 65_535, 65_536, 131_072].each do |middle|
      (middle - 6..middle + 2).each do |size|
        value = PacketBuf.new.write_object((0...size).map { |i| i * 31 % 251 }.pack("C*")).to_str
        buf = buf_of(value)
        buf.copy_object(buf)
        assert buf.to_str == value + value, "#{size} bytes copied behind themselves"
      end
    end
  end
end
