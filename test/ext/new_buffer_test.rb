# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# A buffer of which bytes exist ahead of their time while a value is written shows nobody more than what has been
# written; and a new buffer costs memory of its message's size.
class NewBufferTest < ExtTest
  include RubyProcess

  LONG = "x" * 1000

  # Writes a pair and has the block look at the buffer in between.
  def looking_hash(&look)
    Class.new(Hash) do
      define_method(:each) do |&block|
        block.call(["first", LONG])
        look.call
        block.call(["second", LONG])
      end
    end.new
  end

  def encoded(value)
    PacketBuf.new.write_object(value).to_str
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

  def test_ruby_code_that_writes_to_another_new_buffer
    inner = nil
    outer = PacketBuf.new << looking_hash { inner = encoded([LONG, "inner"]) }
    assert_equal encoded("first" => LONG, "second" => LONG), outer.to_str
    assert_equal [LONG, "inner"], PacketBuf.new.write_raw(inner).seek(0).extract_object
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

  def test_threads_have_new_buffers_of_their_own
    results = Array.new(4) do |i|
      Thread.new do
        Array.new(50) { |n| encoded(looking_hash { Thread.pass }.merge!("own" => [i, n])) && encoded([i, n, LONG]) }
      end
    end.map(&:value)
    results.each_with_index do |strings, i|
      strings.each_with_index do |bytes, n|
        assert_equal [i, n, LONG], PacketBuf.new.write_raw(bytes).seek(0).extract_object
      end
    end
  end

  # 64 KiB each, told to the garbage collector, had it run every 500.
  def test_short_lived_buffers
    skip_under_sanitizers
    skip_without_proc
    collections, peak = run_ruby(<<-'RUBY').split.map(&:to_i)
      value = { "id" => 4711, "method" => "account.update" }
      GC.start
      before = GC.count
      100_000.times { (PacketBuf.new << value).to_str }
      puts GC.count - before, File.read("/proc/self/status")[/VmHWM:\s+(\d+)/, 1]
    RUBY
    assert_operator collections, :<, 100
    assert_operator peak, :<, 200_000
  end
end
