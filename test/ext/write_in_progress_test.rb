# frozen_string_literal: true

require_relative "hash_hook"
require_relative "helper"
require_relative "own_each"

# While a value is written, bytes exist ahead of their time. Ruby code that runs in between sees what has been written,
# may write more, and may do so while another method that it has called already holds the buffer.
class WriteInProgressTest < ExtTest
  LONG = "x" * 1000

  def encoded(value)
    PacketBuf.new.write_object(value).to_str
  end

  # Writes a pair and calls the block in between.
  def looking_hash(&look)
    OwnEach.new do |block|
      block.call(["first", LONG])
      look.call
      block.call(["second", LONG])
    end
  end

  # A new buffer, one of some bytes, one whose bytes are overwritten, and frames.
  def buffers
    used = PacketBuf.new.write_object([LONG] * 3).reset
    { "new" => PacketBuf.new, "some bytes" => PacketBuf.new.write_raw("abc"), "used" => used,
      "frame" => PacketFrameOut.new.reset, "in a frame" => PacketFrameIn.new }
  end

  def test_ruby_code_in_the_middle_of_a_write_sees_what_is_written
    buffers.each do |name, buf|
      start = buf.pos
      size = buf.payload_size
      seen = nil
      inner = looking_hash { seen = [buf.pos, buf.payload_size, buf.index_within_payload?(buf.pos)] }
      buf << [1, inner, 2]
      pos = start + encoded([1, { "first" => LONG }, 2]).bytesize - 3
      stored = buf.is_a?(PacketFrameIn) ? 0 : [pos, size].max
      assert_equal [pos, stored, pos < stored], seen, name
      expected = encoded([1, { "first" => LONG, "second" => LONG }, 2])
      next if buf.is_a?(PacketFrameIn)
      assert_equal expected, buf.to_str.byteslice(start..-1), name
      assert_equal [start + expected.bytesize, size].max, buf.payload_size, name
    end
  end

  def test_ruby_code_that_writes_to_the_buffer_in_the_middle_of_a_write
    buffers.each do |name, buf|
      next if buf.is_a?(PacketFrameIn)
      start = buf.pos
      buf << looking_hash { buf << ["inner"] * 200 }
      expected = encoded("first" => LONG).chop + encoded(["inner"] * 200) + encoded("second" => LONG).byteslice(1..-1)
      assert_equal expected, buf.to_str.byteslice(start..-1), name
    end
  end

  # The text of a failure is made, and trace points run, before the write has ended.
  def test_a_failure_in_the_middle_of_a_write
    failures = { "type" => [Object.new, RuntimeError], "integer" => [2**64, RangeError],
                 "depth" => [Array.new(1) { 70.times.inject([]) { |a, _| [a] } }, RuntimeError] }
    failures.each do |name, (bad, error)|
      buffers.each do |kind, buf|
        next if buf.is_a?(PacketFrameIn)
        start = buf.pos
        size = buf.payload_size
        sizes = []
        trace = TracePoint.new(:raise) { sizes << [buf.pos, buf.payload_size] }
        trace.enable { assert_raises(error) { buf << [LONG, bad] } }
        assert_operator buf.pos, :>, start + 1000, name
        assert_equal [[buf.pos, [buf.pos, size].max]], sizes, "#{name}, #{kind}"
        assert_equal [buf.pos, size].max, buf.payload_size, "#{name}, #{kind}"
      end
    end
  end

  def test_a_failure_before_anything_is_written
    [0, 8, 100_000].each do |pos|
      buf = PacketBuf.new.seek(pos)
      assert_raises(RuntimeError) { buf << Object.new }
      assert_equal [pos, 0], [buf.pos, buf.payload_size]
    end
  end

  def test_a_write_that_is_left_for_ever
    buf = PacketBuf.new
    fiber = Fiber.new { buf << looking_hash { Fiber.yield } }
    fiber.resume
    assert_equal [1, 2, LONG], PacketBuf.new.write_object([1, 2, LONG]).seek(0).extract_object
    assert_equal encoded("first" => LONG).chop, buf.to_str
    assert_equal buf.pos, buf.payload_size
    fiber = nil # rubocop:disable Lint/UselessAssignment
    GC.start
    assert_equal encoded([nil]), (buf.reset << [nil]).to_str
  end

  # --- a method that holds the buffer already -------------------------------------------------------------------

  # Writes a hash of two pairs to the buffer, the second from within what the block does with it.
  def amid_a_write(buf)
    buf << OwnEach.new do |block|
      block.call(["first", 1])
      yield buf, -> { block.call(["second", 2]) }
    end
  end

  PAIRS = { "first" => 1, "second" => 2 }.freeze

  class WritingInteger
    def initialize(number, &write)
      @number = number
      @write = write
    end

    def to_int
      @write.call
      @number
    end
  end

  def test_a_position_that_continues_the_write
    [0, 100_000].each do |pos|
      buf = PacketBuf.new
      amid_a_write(buf) do |_, write|
        buf.pos = WritingInteger.new(pos, &write)
        assert_equal [pos, encoded(PAIRS).bytesize - 1], [buf.pos, buf.payload_size]
        buf.pos = buf.payload_size
      end
      assert_equal encoded(PAIRS), buf.to_str
    end
  end

  # What exists ahead of its time is not within the payload.
  def test_an_index_that_continues_the_write
    buf = PacketBuf.new
    amid_a_write(buf) do |_, write|
      refute buf.index_within_payload?(WritingInteger.new(encoded(PAIRS).bytesize - 1, &write))
    end
    assert_equal encoded(PAIRS), buf.to_str
  end

  def test_an_offset_that_continues_the_write
    bytes = PacketFrameOut.new.reset.write_object([1, 2]).compute_frame_header.to_str
    frame = PacketFrameIn.new
    consumed = nil
    amid_a_write(frame) { |_, write| consumed = frame.assemble(bytes, WritingInteger.new(0, &write)) }
    written = PacketFrameIn.new << PAIRS
    written.pos -= 1
    assert_equal [written.assemble(bytes, 0), (written << nil).pos], [consumed, frame.pos]
  end

  # A byte ahead of its time would read as nil.
  def test_options_that_continue_the_write
    { extract_object: [], copy_object: [PacketBuf.new] }.each do |name, arguments|
      buf = PacketBuf.new
      amid_a_write(buf) do |_, write|
        buf.maxdepth = WritingInteger.new(64, &write)
        error = assert_raises(RuntimeError) { buf.__send__(name, *arguments) }
        assert_equal "decode_next_packetbuf_rbobj: buffer underrun", error.message
      end
      assert_equal encoded(PAIRS), buf.to_str, name
    end
  end

  def test_options_that_continue_the_write_to_the_destination
    source = PacketBuf.new.write_object([3, 4]).seek(0)
    dest = PacketBuf.new
    amid_a_write(dest) do |_, write|
      source.maxdepth = WritingInteger.new(64, &write)
      source.copy_object(dest)
    end
    assert_equal encoded(PAIRS).chop + encoded([3, 4]) + encoded({})[-1], dest.to_str
    assert_equal dest.pos, dest.payload_size
  end

  # Reading goes on in what the key's `hash` has left, and ends where that ends.
  def test_a_key_that_overwrites_what_is_being_read
    buf = PacketBuf.new << [{ [1] => 2 }, 3]
    three = buf.pos - 2
    amid_a_write(buf) do |_, write|
      HashHook.body = lambda do
        buf.seek(three).write_raw("\x00" * (buf.payload_size - three))
        write.call
      end
      buf.pos = 0
      error = assert_raises(RuntimeError) { buf.extract_object }
      assert_equal "decode_packetbuf_rbarray: buffer underrun", error.message
      assert_equal buf.pos, buf.payload_size
    end
  end

  def test_methods_of_a_frame
    calls = { "compute_frame_header" => ->(frame) { frame.compute_frame_header },
              "use_12byte_header=" => ->(frame) { frame.use_12byte_header = true } }
    calls.each do |name, call|
      frame = PacketFrameOut.new
      frame.reset
      start = frame.pos
      seen = nil
      frame << looking_hash { call.call(frame); seen = [frame.pos, frame.payload_size]; frame.pos = seen.max }
      size = start + encoded("first" => LONG).bytesize - 1
      assert_equal [name == "use_12byte_header=" ? 12 : size, size], seen, name
      assert_equal encoded("first" => LONG, "second" => LONG), frame.to_str.byteslice(start..-1), name
    end
  end

  # The key's `hash` runs while the buffer is read. Reading has ended before the write goes on behind the pairs.
  def test_a_key_that_continues_the_write
    value = { [1] => 2, 3 => 4 }
    endings = { "returns" => -> {}, "raises" => -> { raise IOError } }
    endings.each do |name, ending|
      buf = PacketBuf.new << value
      start = buf.pos
      amid_a_write(buf) do |_, write|
        behind = buf.pos
        HashHook.body = -> { buf.pos = behind; write.call; ending.call }
        buf.pos = 0
        name == "raises" ? assert_raises(IOError) { buf.extract_object } : assert_equal(value, buf.extract_object)
        assert_equal start + encoded(PAIRS).bytesize - 1, buf.payload_size, name
        buf.pos = buf.payload_size
      end
      assert_equal encoded(value) + encoded(PAIRS), buf.to_str, name
      assert_equal buf.pos, buf.payload_size, name
    end
  end
end
