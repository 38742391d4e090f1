# frozen_string_literal: true

require_relative "helper"

class PacketFrameOutTest < ExtTest
  INSIDE_HEADER = "PacketFrameOut::compute_frame_header: data pos inside header (negative data length)"

  def oversize(length, max)
    "PacketFrameOut::compute_frame_header: oversize: data_len #{length} > max #{max}"
  end

  def setup
    @frame = PacketFrameOut.new
  end

  def twelve
    @frame.use_12byte_header = true
    @frame
  end

  def test_fresh_frame
    assert_equal [8, false, 0, 0, 2_147_483_647],
                 [@frame.configured_header_len, @frame.using_12byte_header?, @frame.next_seq, @frame.pos,
                  @frame.configured_max_data_len]
    assert_equal [64, false], [@frame.maxdepth, @frame.preserve_symbols_on_extract]
    assert_raises(ArgumentError) { PacketFrameOut.new(1) }
  end

  def test_twelve_byte_layout
    assert_equal [12, true, 12, 16_777_215],
                 [twelve.configured_header_len, @frame.using_12byte_header?, @frame.pos, @frame.configured_max_data_len]
  end

  def test_methods_that_return_the_receiver
    calls = { reset: [], inc_seq: [], :next_seq= => [1], compute_frame_header: [], :use_12byte_header= => [true] }
    calls.each { |name, arguments| assert_same @frame, @frame.send(name, *arguments), name }
  end

  def test_reset_moves_behind_the_header_and_keeps_the_bytes
    @frame.write_raw("0123456789")
    assert_equal [8, 10], [@frame.reset.pos, @frame.payload_size]
    assert_equal 12, twelve.seek(3).reset.pos
    assert_equal "0123456789", @frame.seek(10).to_str
  end

  def test_layout_follows_the_truth_of_the_value
    { nil => 8, false => 8, true => 12, 0 => 12, "" => 12, Object.new => 12 }.each do |value, header_len|
      @frame.use_12byte_header = !value
      @frame.use_12byte_header = value
      assert_equal [header_len, header_len == 12, header_len],
                   [@frame.configured_header_len, @frame.using_12byte_header?, @frame.pos], value.inspect
    end
  end

  def test_payload_range_is_the_whole_buffer
    @frame.reset << 1
    assert_equal [9, 0], [@frame.payload_size, @frame.seek_payload_start.pos]
    assert @frame.index_within_payload?(0)
  end

  # --- sequence numbers ----------------------------------------------------------------------------------

  def test_next_seq_keeps_16_bits
    { 0 => 0, 65_535 => 65_535, 65_536 => 0, 70_000 => 4464, -1 => 65_535, 2**32 + 3 => 3, 2**62 + 9 => 9,
      2**64 - 1 => 65_535, 7.9 => 7 }.each do |given, expected|
      next unless fits?(given)
      @frame.next_seq = given
      assert_equal expected, @frame.next_seq, given
    end
  end

  def test_next_seq_refuses_non_integers
    @frame.next_seq = 5
    { nil => TypeError, "1" => TypeError, 2**64 => RangeError }.each do |value, error|
      assert_raises(error) { @frame.next_seq = value }
    end
    assert_equal 5, @frame.next_seq
  end

  def test_inc_seq_wraps
    @frame.next_seq = 65_534
    assert_equal [65_535, 0, 1], (1..3).map { @frame.inc_seq.next_seq }
  end

  # --- the header ----------------------------------------------------------------------------------------

  def test_empty_frame
    assert_equal "a5 01 00 00 00 00 00 00", Hex.encode(@frame.reset.compute_frame_header.to_str)
    assert_equal "a5 00 00 00 00 00 00 de ad be ef 5a", Hex.encode(twelve.compute_frame_header.to_str)
  end

  def test_twelve_byte_frame
    twelve.next_seq = 0x1234
    assert_equal "a5 00 12 34 00 00 05 de ad be ef 5a 68 65 6c 6c 6f",
                 Hex.encode(@frame.write_raw("hello").compute_frame_header.to_str)
  end

  def test_eight_byte_frame
    @frame.next_seq = 0x1234
    assert_equal "a5 01 12 34 00 00 00 05 68 65 6c 6c 6f",
                 Hex.encode(@frame.reset.write_raw("hello").compute_frame_header.to_str)
  end

  def test_header_moves_neither_position_nor_sequence_number
    @frame.next_seq = 9
    @frame.reset.write_raw("hello").compute_frame_header
    assert_equal [13, 9], [@frame.pos, @frame.next_seq]
  end

  def test_payload_ends_at_the_position
    @frame.reset.write_raw("hello").seek(10).compute_frame_header
    assert_equal "a5 01 00 00 00 00 00 02 68 65", Hex.encode(@frame.to_str)
  end

  def test_frame_after_frame
    frames = [:a, :b].map do |symbol|
      frame = (@frame.reset << symbol).compute_frame_header.to_str
      @frame.inc_seq
      Hex.encode(frame)
    end
    assert_equal ["a5 01 00 00 00 00 00 03 06 01 61", "a5 01 00 01 00 00 00 03 06 01 62"], frames
  end

  def test_switching_the_layout_starts_the_frame_over
    @frame.reset.write_raw("abcdefgh")
    assert_equal "a5 00 00 00 00 00 01 de ad be ef 5a 58", Hex.encode(twelve.write_raw("X").compute_frame_header.to_str)
  end

  def test_position_inside_the_header
    @frame.next_seq = 3
    [[false, (0..7)], [true, (0..11)]].each do |layout, positions|
      @frame.use_12byte_header = layout
      @frame.seek(0).write_raw("-" * 20)
      positions.each do |pos|
        assert_raises_with(RuntimeError, INSIDE_HEADER) { @frame.seek(pos).compute_frame_header }
        assert_equal [pos, 3], [@frame.pos, @frame.next_seq]
      end
      assert_equal "-" * 20, @frame.seek(20).to_str
    end
  end

  def test_longest_twelve_byte_payload
    twelve.write_raw("x" * 16_777_215).compute_frame_header
    assert_equal "a5 00 00 00 ff ff ff de ad be ef 5a 78", Hex.encode(@frame.to_str[0, 13])
    @frame.write_raw("x")
    assert_raises_with(RuntimeError, oversize(16_777_216, 16_777_215)) { @frame.compute_frame_header }
    assert_equal 16_777_228, @frame.pos
    assert_equal "a5 00 00 00 ff ff ff de ad be ef 5a 78", Hex.encode(@frame.to_str[0, 13]),
                 "the header before the failure is kept"
  end

  # The header is computed from the position alone, so no 2 GiB payload has to exist.
  def test_longest_eight_byte_payload
    @frame.seek(2_147_483_647 + 8).compute_frame_header
    assert_equal "a5 01 00 00 7f ff ff ff", Hex.encode(@frame.seek(8).to_str)
    [2_147_483_648, 2**32 - 1 - 8].each do |length|
      assert_raises_with(RuntimeError, oversize(length, 2_147_483_647)) { @frame.seek(length + 8).compute_frame_header }
    end
    assert_equal 8, @frame.payload_size
  end
end
