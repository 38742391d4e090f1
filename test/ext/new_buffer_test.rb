# frozen_string_literal: true

require_relative "helper"
require_relative "own_each"
require_relative "ruby_process"

# A new buffer takes memory of its message's size. Its first value is encoded in memory that a thread's buffers share.
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
