# frozen_string_literal: true

require_relative "helper"

class PacketFrameTest < ExtTest
  NOT_SUPPORTED = "naked PacketFrame instancing not supported; use PacketFrameIn or PacketFrameOut"

  CONSTANTS = {
    PF8_HEADER_LEN: 8, PF8_MAX_DATA_LEN: 2_147_483_647, PF12_HEADER_LEN: 12, PF12_MAX_DATA_LEN: 16_777_215
  }.freeze

  def test_has_no_instances
    assert_raises_with(NotImplementedError, NOT_SUPPORTED) { PacketFrame.new }
    assert_raises_with(NotImplementedError, NOT_SUPPORTED) { PacketFrame.allocate }
    assert_raises_with(NotImplementedError, NOT_SUPPORTED) { PacketFrame.new(1) }
    assert_raises_with(NotImplementedError, NOT_SUPPORTED) { Class.new(PacketFrame).new }
  end

  def test_constants_are_seen_through_both_frame_classes
    assert_equal CONSTANTS.keys.sort, PacketFrame.constants(false).sort
    [PacketFrame, PacketFrameIn, PacketFrameOut].each do |frame|
      CONSTANTS.each { |name, value| assert_equal value, frame.const_get(name), "#{frame}::#{name}" }
    end
  end

  HEADERS = [
    # sequence number, payload length, 12-byte layout, header
    [0x1234, 5, false, "a5 01 12 34 00 00 00 05"],
    [0x1234, 5, true, "a5 00 12 34 00 00 05 de ad be ef 5a"],
    [0, 0, false, "a5 01 00 00 00 00 00 00"],
    [0, 0, true, "a5 00 00 00 00 00 00 de ad be ef 5a"],
    [0xFFFF, 0x0102, false, "a5 01 ff ff 00 00 01 02"],
    [0xFFFF, 0x010203, true, "a5 00 ff ff 01 02 03 de ad be ef 5a"],
    [1, 0x010203, false, "a5 01 00 01 00 01 02 03"]
  ].freeze

  def test_headers_are_written_and_read
    HEADERS.each do |seq, length, twelve, header|
      out = PacketFrameOut.new
      out.use_12byte_header = twelve
      out.next_seq = seq
      frame = out.write_raw("x" * length).compute_frame_header.to_str
      assert_equal header, Hex.encode(frame[0...-length]) if length > 0
      assert_equal header, Hex.encode(frame[0, twelve ? 12 : 8])

      into = PacketFrameIn.new.reset
      assert_equal frame.size, into.assemble(frame, 0)
      assert_equal [true, seq, length], [into.have_complete_frame?, into.seq, into.payload_size]
      assert_equal Hex.decode(header).size, into.seek_payload_start.pos
    end
  end
end
