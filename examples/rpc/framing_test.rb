# frozen_string_literal: true

require_relative "../test_support"
require_relative "framing"

class FramingTest < ExampleTest
  MESSAGES = [[1, "echo", ["one"]], false, [3, nil, { "three" => "\xA5\xA5".b }], nil].freeze
  LIMIT = 1000

  def stream(twelve)
    frame = VORN::PROTO::PacketFrameOut.new
    MESSAGES.map do |message|
      frame.use_12byte_header = twelve
      (frame << message).compute_frame_header.to_str
    end.join
  end

  def read(*chunks, &damaged)
    messages = []
    reader = FrameReader.new(LIMIT, &damaged)
    chunks.each { |chunk| reader.feed(chunk) { |message| messages << message } }
    messages
  end

  def refused(*chunks)
    assert_raises(BadFrame) { read(*chunks) }.message
  end

  def test_chunks_of_any_size
    [true, false].each do |twelve|
      bytes = stream(twelve)
      assert_equal MESSAGES, read(bytes)
      assert_equal MESSAGES, read(*bytes.each_char)
      (1...bytes.bytesize).each do |at|
        assert_equal MESSAGES, read(bytes.byteslice(0, at), bytes.byteslice(at..-1)), "cut at #{at}"
      end
    end
  end

  def test_what_the_writer_makes_is_read
    writer = FrameWriter.new(LIMIT)
    assert_equal MESSAGES, read(MESSAGES.map { |message| writer.frame(message) }.join)
  end

  def test_where_a_stream_may_end
    [true, false].each do |twelve|
      frame = VORN::PROTO::PacketFrameOut.new
      frame.use_12byte_header = twelve
      bytes = (frame << "text").compute_frame_header.to_str
      reader = FrameReader.new(LIMIT)
      assert reader.between_frames?
      bytes.each_char.with_index(1) do |byte, count|
        reader.feed(byte) { |message| assert_equal "text", message }
        assert_equal count == bytes.bytesize, reader.between_frames?, "after #{count} bytes"
      end
    end
  end

  def test_frames_are_numbered
    writer = FrameWriter.new(LIMIT)
    assert_equal [0, 1], Array.new(2) { writer.frame(nil).unpack("@2n")[0] }
  end

  def test_writer_keeps_the_limit_and_recovers
    writer = FrameWriter.new(10)
    assert_equal "a message of 11 bytes, 10 are allowed",
                 assert_raises(MessageTooLarge) { writer.frame("123456789") }.message
    assert_raises(RuntimeError) { writer.frame([1, Time]) }
    assert_equal 18, writer.frame("12345678").bytesize
  end

  def test_large_announcements_are_refused_before_room_is_made
    before = peak_memory
    assert_equal "a frame announces 2147483647 bytes, 1000 are accepted", refused("\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b)
    assert_operator peak_memory - before, :<, 1 << 20, "KiB of address space"
    assert_equal "a frame announces 16777215 bytes, 1000 are accepted",
                 refused("\xA5\x00\x00\x00\xFF\xFF\xFF\xDE\xAD\xBE\xEF\x5A".b)
    assert_equal "a frame announces 1001 bytes, 1000 are accepted", refused("\xA5\x01\x00\x00\x00\x00\x03\xE9".b)
    assert_equal ["x" * 997], read("\xA5\x01\x00\x00\x00\x00\x03\xE8\x07\xE5\x07".b + "x" * 997)
  end

  def peak_memory
    File.read("/proc/self/status")[/^VmPeak:\s+(\d+)/, 1].to_i
  end

  def test_damage_ends_the_stream
    assert_equal "4 bytes that belong to no frame", refused("GET ")
    assert_equal "a frame failed its checks", refused("\xA5\x00\x00\x00\x00\x00\x00\xDE\xAD\xBE\xEF\x59".b)
    # The error comes at once, without waiting for more bytes.
    assert_equal "a frame failed its checks", refused("\xA5\x00\x00\x00\x00\x00\x01\xDE\xAD\xBE\xEE\x5A\x02".b)
    assert_equal "decode_next_packetbuf_rbobj: unrecognized protocol transport type",
                 refused("\xA5\x01\x00\x00\x00\x00\x00\x01\x0C".b)
    assert_equal "decode_next_packetbuf_rbobj: buffer underrun", refused("\xA5\x01\x00\x00\x00\x00\x00\x00".b)
    assert_equal "a frame holds something else than one message", refused("\xA5\x01\x00\x00\x00\x00\x00\x02\x00\x00".b)
  end

  # A string's length is checked against the buffer, which may hold bytes of older frames.
  def test_a_string_cannot_reach_into_an_older_frame
    secret = "\xA5\x01\x00\x00\x00\x00\x00\x08\x07\x06secret".b
    assert_equal "a frame holds something else than one message",
                 refused(secret, "\xA5\x01\x00\x00\x00\x00\x00\x03\x07\x06.".b)
  end

  def test_reading_on_behind_damage
    good = FrameWriter.new(LIMIT).frame("good")
    {
      "noise" => "4 bytes that belong to no frame",
      "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b => "a frame announces 2147483647 bytes, 1000 are accepted",
      "\xA5\x00\x00\x00\x00\x00\x00\xDE\xAD\xBE\xEF\x59".b => "a frame failed its checks",
      "\xA5\x00\x00\x00\x00\x00\x02\xDE\xAD\xBE\xEE\x5A\xA5\x00".b => "a frame failed its checks",
      # A truncated header, completed by the beginning of the good frame.
      "\xA5\x01\x00\x00".b => "a frame announces 2768306176 bytes, 1000 are accepted",
      "\xA5\x00\x00\x00".b => "a frame announces 10813696 bytes, 1000 are accepted",
      # The good frame is where the bad header's payload would be.
      "\xA5\x00\x00\x00\x00\x00\x0E\xDE\xAD\xBE\xEE\x5A".b => "a frame failed its checks",
      "\xA5\x01\x00\x00\x00\x00\x00\x01\x0C".b => "decode_next_packetbuf_rbobj: unrecognized protocol transport type"
    }.each do |damage, reason|
      bytes = damage.b + good
      (0..bytes.bytesize).each do |at|
        reasons = []
        found = read(good + bytes.byteslice(0, at), bytes.byteslice(at..-1) + good) { |text| reasons << text }
        assert_equal %w[good good good], found, "#{damage.inspect} cut at #{at}"
        refute_empty reasons
        assert_includes reasons, reason if at.zero? && damage != "noise"
      end
    end
  end
end
