# frozen_string_literal: true

require_relative "helper"
require_relative "own_each"
require_relative "ruby_process"

# A new buffer, or frame, takes memory of its message's size. The first value of one is encoded in memory that the
# buffers of a thread share.
class NewBufferTest < ExtTest
  include RubyProcess

  LONG = "x" * 1000

  def encoded(value)
    PacketBuf.new.write_object(value).to_str
  end

  def test_a_buffer_that_is_written_while_another_one_is
    inner = nil
    outer = encoded(OwnEach.new { |block| inner = encoded([LONG, "inner"]) and block.call(["first", LONG]) })
    assert_equal encoded("first" => LONG), outer
    assert_equal [LONG, "inner"], PacketBuf.new.write_raw(inner).seek(0).extract_object
  end

  def test_buffers_of_threads_that_take_turns
    results = Array.new(4) do |i|
      Thread.new do
        Array.new(50) do |n|
          encoded(OwnEach.new { |block| 2.times { block.call([i, LONG]) && Thread.pass && encoded([n, LONG]) } })
        end
      end
    end.map(&:value)
    results.each_with_index do |strings, i|
      expected = encoded(OwnEach.new { |block| 2.times { block.call([i, LONG]) } })
      strings.each { |bytes| assert_equal expected, bytes }
    end
  end

  # 64 KiB each, told to the garbage collector, had it run every 500.
  def assert_cheap(most, work)
    skip_under_sanitizers
    skip_without_proc
    collections, peak = run_ruby(STATUS + <<-RUBY).split.map(&:to_i)
      value = { "id" => 4711, "method" => "account.update" }
      GC.start
      before, resident = GC.count, status("VmRSS")
      100_000.times { #{work} }
      puts GC.count - before, (status("VmHWM") - resident) / 1024
    RUBY
    assert_operator collections, :<, most
    assert_operator peak, :<, 200_000
  end

  def test_short_lived_buffers
    assert_cheap 100, "(PacketBuf.new << value).to_str"
  end

  def test_short_lived_frames
    assert_cheap 200, <<-'RUBY'
      bytes = (PacketFrameOut.new.reset << value).compute_frame_header.to_str
      frame = PacketFrameIn.new.reset
      frame.assemble(bytes, 0)
      frame.seek_payload_start.extract_object == value or abort "another value"
    RUBY
  end

  # Each in the memory of those before it.
  def test_frames_of_all_sizes
    out = PacketFrameOut.new
    frame = PacketFrameIn.new
    [0, 1, 2, 100, 70_000, 3, 300_000, 5].each do |n|
      fresh = PacketFrameOut.new
      bytes = [out, fresh].map { |each| (each.reset << ["x"] * n).compute_frame_header.to_str }
      assert_equal(*bytes)
      frame.reset
      pieces = [bytes[0][0, n / 2 + 1], bytes[0][n / 2 + 1..-1]]
      pieces.each { |piece| assert_equal piece.bytesize, frame.assemble(piece, 0) }
      assert_predicate frame, :have_complete_frame?
      assert_equal ["x"] * n, frame.seek_payload_start.extract_object
    end
  end
end
