# frozen_string_literal: true

require_relative "helper"

class PacketFrameInTest < ExtTest
  NOT_A_STRING = "packetframein_assemble: data argument should be T_STRING"
  OUT_OF_RANGE = "packetframein_assemble: offset argument out of range"

  AB = Hex.decode("a5 01 00 07 00 00 00 02 41 42")
  AB12 = Hex.decode("a5 00 00 08 00 00 02 de ad be ef 5a 43 44")
  EMPTY = Hex.decode("a5 01 00 09 00 00 00 00")
  EMPTY12 = Hex.decode("a5 00 00 0a 00 00 00 de ad be ef 5a")
  BAD_HEADER_CHECK = Hex.decode("a5 00 00 08 00 00 02 de ad be ef 59 43 44")
  BAD_PAYLOAD_CHECK = Hex.decode("a5 00 00 08 00 00 02 de ad be ee 5a 43 44")
  TOO_LONG = Hex.decode("a5 01 00 08 80 00 00 00")
  FRAMES = { AB => [7, "AB"], AB12 => [8, "CD"], EMPTY => [9, ""], EMPTY12 => [10, ""] }.freeze

  def setup
    @frame = PacketFrameIn.new.reset
  end

  def payload(frame)
    return "" if frame.payload_size == 0
    start = frame.seek_payload_start.pos
    bytes = frame.seek(start + frame.payload_size).to_str[start..-1]
    assert_binary bytes, bytes
    bytes
  end

  # Feeds chunks as a receiver does; returns [seq, payload] of each completed frame.
  def receive(chunks)
    received = []
    chunks.each do |chunk|
      offset = 0
      while offset < chunk.size
        consumed = @frame.assemble(chunk, offset)
        offset += consumed
        if @frame.have_complete_frame?
          received << [@frame.seq, payload(@frame)]
          @frame.reset
        else
          refute_equal 0, consumed, "no progress at #{offset} in #{Hex.encode(chunk)}"
        end
      end
    end
    received
  end

  def cut(stream, cuts)
    [0, *cuts, stream.size].each_cons(2).map { |from, to| stream[from...to] }
  end

  # Every way to cut a stream into chunks, 2**(size - 1) of them.
  def each_split(stream)
    (0...2**(stream.size - 1)).each do |mask|
      yield cut(stream, (1...stream.size).select { |index| mask[index - 1] == 1 })
    end
  end

  # --- the states of a frame -----------------------------------------------------------------------------

  def test_fresh_frame_consumes_nothing_before_its_first_reset
    frame = PacketFrameIn.new
    assert_equal [0, 0], [frame.assemble(AB, 0), frame.assemble(AB, 3)]
    assert_equal [false, 0, 0, 0], [frame.have_complete_frame?, frame.seq, frame.pos, frame.payload_size]
    assert_equal AB.size, frame.reset.assemble(AB, 0)
  end

  def test_defaults
    assert_equal [64, false], [@frame.maxdepth, @frame.preserve_symbols_on_extract]
    assert_raises(ArgumentError) { PacketFrameIn.new(1) }
    assert_same @frame, @frame.reset
  end

  def test_whole_frame
    assert_equal 10, @frame.assemble(AB, 0)
    assert_equal [true, 7, 2, 10], [@frame.have_complete_frame?, @frame.seq, @frame.payload_size, @frame.pos]
    assert_equal 8, @frame.seek_payload_start.pos
    assert_equal AB, @frame.seek(10).to_str
  end

  def test_whole_twelve_byte_frame
    assert_equal 14, @frame.assemble(AB12, 0)
    assert_equal [true, 8, 2, 14], [@frame.have_complete_frame?, @frame.seq, @frame.payload_size, @frame.pos]
    assert_equal 12, @frame.seek_payload_start.pos
  end

  def test_byte_by_byte
    FRAMES.each do |bytes, expected|
      frame = PacketFrameIn.new.reset
      complete = bytes.each_char.map do |byte|
        assert_equal 1, frame.assemble(byte, 0)
        frame.have_complete_frame?
      end
      assert_equal [false] * (bytes.size - 1) + [true], complete
      assert_equal expected, [frame.seq, payload(frame)]
    end
  end

  def test_garbage_before_the_marker_is_skipped_and_counted
    assert_equal 13, @frame.assemble("abc" + AB, 0)
    assert_equal [7, "AB"], [@frame.seq, payload(@frame)]
  end

  def test_chunk_without_a_marker_is_dropped
    assert_equal 1000, @frame.assemble("x" * 1000, 0)
    assert_equal [0, false], [@frame.pos, @frame.have_complete_frame?]
    assert_equal 10, @frame.assemble(AB, 0)
  end

  def test_marker_is_not_looked_for_again_inside_a_frame
    bytes = Hex.decode("a5 a5 a5 a5 00 00 00 02 a5 a5")
    assert_equal [[0xA5A5, Hex.decode("a5 a5")]], receive([bytes])
  end

  def test_frame_without_payload_completes_with_its_header
    [EMPTY, EMPTY12].each do |bytes|
      assert_equal bytes.size, @frame.reset.assemble(bytes, 0)
      assert_equal [true, 0], [@frame.have_complete_frame?, @frame.payload_size]
    end
  end

  def test_two_frames_in_one_chunk
    chunk = AB + AB12
    assert_equal 10, @frame.assemble(chunk, 0)
    assert_equal [true, "AB"], [@frame.have_complete_frame?, payload(@frame)]
    assert_equal 14, @frame.reset.assemble(chunk, 10)
    assert_equal [true, "CD"], [@frame.have_complete_frame?, payload(@frame)]
  end

  def test_complete_frame_consumes_nothing_more
    @frame.assemble(AB, 0)
    assert_equal 0, @frame.assemble(AB, 0)
    assert_equal [true, 7], [@frame.have_complete_frame?, @frame.seq]
    assert_equal 0, @frame.assemble("", 0)
    assert_predicate @frame, :have_complete_frame?, "an empty chunk changes nothing"
  end

  def test_layout_is_decided_by_one_bit
    (0..255).each do |layout|
      eight = layout.odd?
      bytes = eight ? AB.dup : AB12.dup
      bytes.setbyte(1, layout)
      assert_equal bytes.size, @frame.reset.assemble(bytes, 0), layout
      assert_equal [true, eight ? "AB" : "CD"], [@frame.have_complete_frame?, payload(@frame)], layout
    end
  end

  def test_to_str_ends_inside_the_payload
    @frame.assemble(AB, 0)
    assert_equal ["", AB[0, 9], AB], [0, 9, 10].map { |pos| @frame.seek(pos).to_str }
    [1, 8, 11].each do |pos|
      assert_raises_with(RuntimeError, "packetbuf_to_str: pos outside payload") { @frame.seek(pos).to_str }
    end
  end

  def test_storage_is_kept_between_frames
    long = Hex.decode("a5 01 00 01 00 00 00 14") + "0123456789abcdefghij"
    @frame.assemble(long, 0)
    @frame.reset.assemble(AB, 0)
    assert_equal [2, "AB"], [@frame.payload_size, payload(@frame)]
    refute @frame.index_within_payload?(10)
    assert_raises_with(RuntimeError, "packetbuf_to_str: pos outside payload") { @frame.seek(11).to_str }
  end

  # --- every split ---------------------------------------------------------------------------------------

  def test_every_split_of_one_frame
    FRAMES.each do |bytes, expected|
      each_split(bytes) { |chunks| assert_equal [expected], receive(chunks), chunks.inspect }
    end
  end

  def test_every_pair_of_cuts_of_a_stream
    stream = "xy" + AB + "z" + AB12 + EMPTY + EMPTY12 + "\x00" + AB
    expected = [AB, AB12, EMPTY, EMPTY12, AB].map { |bytes| FRAMES[bytes] }
    assert_equal expected, receive([stream])
    assert_equal expected, receive(stream.each_char.to_a)
    (1...stream.size).to_a.combination(2) { |cuts| assert_equal expected, receive(cut(stream, cuts)), cuts.inspect }
  end

  def test_every_split_of_a_failing_frame
    { BAD_HEADER_CHECK => 12, BAD_PAYLOAD_CHECK => 14 }.each do |bytes, consumed|
      each_split(bytes) do |chunks|
        @frame.reset
        assert_equal consumed, chunks.map { |chunk| @frame.assemble(chunk, 0) }.inject(:+), chunks.inspect
        refute_predicate @frame, :have_complete_frame?
      end
    end
  end

  # --- what a header announces while it arrives ----------------------------------------------------------

  def test_payload_range_while_the_header_arrives
    starts = AB12.each_char.map do |byte|
      @frame.assemble(byte, 0)
      pos = @frame.pos
      start = @frame.seek_payload_start.pos
      assert_equal pos < 12 ? 0 : 2, @frame.payload_size
      @frame.seek(pos)
      start
    end
    assert_equal [8] + [12] * 13, starts
  end

  # --- frames that fail ----------------------------------------------------------------------------------

  def assert_failed(bytes, consumed)
    assert_equal consumed, @frame.assemble(bytes, 0)
    refute_predicate @frame, :have_complete_frame?
    assert_equal [0, 0], [@frame.assemble(AB, 0), @frame.assemble(bytes, 3)]
    refute_predicate @frame, :have_complete_frame?
    assert_equal [10, true], [@frame.reset.assemble(AB, 0), @frame.have_complete_frame?]
  end

  def test_wrong_header_check_fails_once_the_header_is_in
    assert_failed BAD_HEADER_CHECK, 12
  end

  def test_wrong_payload_check_fails_once_the_payload_is_in
    assert_failed BAD_PAYLOAD_CHECK, 14
    (7..10).each do |index|
      bytes = AB12.dup
      bytes.setbyte(index, bytes.getbyte(index) ^ 0x10)
      @frame.reset
      assert_failed bytes, 14
    end
  end

  def test_eight_byte_headers_have_no_header_check
    bytes = BAD_HEADER_CHECK.dup
    bytes.setbyte(1, 3)
    bytes[4, 4] = Hex.decode("00 00 00 06")
    assert_equal [[8, bytes[8..-1]]], receive([bytes])
  end

  def test_announced_length_over_the_limit
    assert_failed TOO_LONG, 8
    @frame.reset
    assert_failed Hex.decode("a5 01 00 08 ff ff ff ff"), 8
  end

  # --- arguments -----------------------------------------------------------------------------------------

  def test_data_must_be_a_string
    [nil, false, true, 1, 2**70, :sym, 1.5, [], Object.new, PacketBuf.new].each do |data|
      assert_raises_with(ArgumentError, NOT_A_STRING) { @frame.assemble(data, 0) }
      assert_raises_with(ArgumentError, NOT_A_STRING) { @frame.assemble(data, nil) }
    end
  end

  def test_empty_data_is_accepted_whatever_the_offset
    [0, 3, -1, nil, "x", 2**70].each { |offset| assert_equal 0, @frame.assemble("", offset) }
  end

  def test_offset_lies_inside_the_data
    [-1, 3, 4, 2**31, -2**31, 2**32 - 1, 2**62 + 3].each do |offset|
      next unless fits?(offset, false)
      assert_raises_with(ArgumentError, OUT_OF_RANGE, offset) { @frame.assemble("abc", offset) }
    end
    assert_equal [3, 2, 1], (0..2).map { |offset| @frame.assemble("abc", offset) }
  end

  def test_offset_is_truncated_to_32_bits
    offsets = { 2**32 + 1 => 2, -2**62 => 3, 2.9 => 1 }.select { |offset, _| fits?(offset, false) }
    offsets.each { |offset, consumed| assert_equal consumed, @frame.assemble("abc", offset) }
  end

  def test_non_integer_offsets_are_refused_by_ruby
    { nil => TypeError, "0" => TypeError, 2**64 => RangeError, 2**63 => RangeError }.each do |offset, error|
      assert_raises(error) { @frame.assemble("abc", offset) }
    end
  end

  def test_chunks_of_any_kind
    shared = ("x" * 100 + AB)[100..-1]
    chunks = [AB.dup.freeze, shared, AB.dup.force_encoding("UTF-8"), AB.dup.force_encoding("UTF-16LE"),
              Class.new(String).new(AB)]
    chunks.each { |chunk| assert_equal [[7, "AB"]], receive([chunk]) }
  end

  # --- a position moved by hand in the middle of a frame -------------------------------------------------

  def test_position_inside_the_header
    @frame.assemble(AB[0, 9], 0)
    @frame.pos = 7
    assert_raises_with(RuntimeError, "PacketFrameIn::st_accept_payload: data pos inside header (internal error)") do
      @frame.assemble("B", 0)
    end
    @frame.pos = 9
    assert_equal [1, true, "AB"], [@frame.assemble("B", 0), @frame.have_complete_frame?, payload(@frame)]
  end

  def test_position_behind_the_payload
    @frame.assemble(AB[0, 9], 0)
    @frame.pos = 11
    assert_raises_with(RuntimeError, "PacketFrameIn::st_accept_payload: excess payload received (internal error)") do
      @frame.assemble("B", 0)
    end
    @frame.pos = 9
    assert_equal [1, true, "AB"], [@frame.assemble("B", 0), @frame.have_complete_frame?, payload(@frame)]
  end

  def test_position_moved_inside_the_payload_moves_what_is_received
    @frame.assemble(AB[0, 9], 0)
    @frame.pos = 8
    assert_equal [2, "XY"], [@frame.assemble("XYZ", 0), payload(@frame)]
  end

  # --- reading -------------------------------------------------------------------------------------------

  def test_all_values_of_a_frame
    values = [nil, { "key" => [1, -2.5] }, "text", 2**63 - 1]
    out = PacketFrameOut.new.reset
    values.each { |value| out << value }
    bytes = out.compute_frame_header.to_str

    assert_equal bytes.size, @frame.assemble(bytes, 0)
    @frame.seek_payload_start
    assert_equal values, values.map { @frame.extract_object }
    assert_equal @frame.payload_size + 8, @frame.pos
    assert_raises_with(RuntimeError, "decode_next_packetbuf_rbobj: buffer underrun") { @frame.extract_object }
  end

  def test_values_are_read_inside_the_payload_only
    @frame.assemble(AB, 0)
    [0, 7, 10, 2**32 - 1].each do |pos|
      underrun = "decode_next_packetbuf_rbobj: buffer underrun"
      assert_raises_with(RuntimeError, underrun) { @frame.seek(pos).extract_object }
      assert_equal pos, @frame.pos
    end
  end

  # The storage keeps the bytes of an earlier, longer frame behind the payload.
  def frame_before_old_bytes(payload, old)
    room = PacketFrameIn.new.reset
    [old, payload].each do |bytes|
      room.reset.assemble([0xA5, 1, 0, bytes.size].pack("CCnN") + bytes, 0)
      assert_predicate room, :have_complete_frame?
    end
    room.seek_payload_start
  end

  def test_body_of_a_string_may_reach_beyond_the_payload
    frame = frame_before_old_bytes(Hex.decode("07 05 61 62"), "----cde")
    assert_equal ["abcde", 15], [frame.extract_object, frame.pos]
    frame = frame_before_old_bytes(Hex.decode("07 05 61 62"), "----cd")
    assert_raises_with(RuntimeError, "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes") do
      frame.extract_object
    end
  end

  def test_everything_else_ends_with_the_payload
    { "07" => "decode_next_packetbuf_rbstr: buffer underrun decoding data length",
      "07 80" => "decode_next_packetbuf_rbstr: buffer underrun decoding data length",
      "a0" => "decode_next_packetbuf_rbobj: buffer underrun decoding integer",
      "03 00 00 00" => "decode_packetbuf_rbfloat: buffer underrun",
      "04 00 00 00 00 00 00 00" => "decode_packetbuf_rbdouble: buffer underrun",
      "0a" => "decode_packetbuf_rbarray: buffer underrun", "08" => "decode_packetbuf_rbhash: buffer underrun",
      "08 81" => "decode_next_packetbuf_rbobj: buffer underrun" }.each do |payload, message|
      frame = frame_before_old_bytes(Hex.decode(payload), "\0" * 30)
      assert_raises_with(RuntimeError, message, payload) { frame.extract_object }
    end
  end

  def test_copying_out_of_a_frame
    bytes = (PacketFrameOut.new.reset << ["value"] << 2).compute_frame_header.to_str
    @frame.assemble(bytes, 0)
    to = PacketBuf.new
    @frame.seek_payload_start.copy_object(to)
    assert_equal "0a 07 05 76 61 6c 75 65 0b", Hex.encode(to.to_str)
    assert_equal 2, @frame.extract_object
  end
end
