# frozen_string_literal: true

require_relative "../ext/helper"
require_relative "../ext/ruby_process"
require "vorn_rpc/stream"

# The native part of streams. What becomes of its results is in stream_test.rb and streams_test.rb.
class NativeTest < ExtTest
  include RubyProcess

  NATIVE = VORN::Stream.send(:const_get, :Native)
  CUT = 5_000_000_000

  # Hashes that iterate in their own way.
  class OwnEach < Hash
    def initialize(&each)
      super()
      @each = each
    end

    def each(&block)
      @each.call(block)
    end
  end

  def setup
    skip "immediate Integers of 31 bits" if 0.size < 8
  end

  def assert_cut(value)
    assert_equal "#{CUT} would be cut to 32 bits", assert_raises(RangeError) { NATIVE.check_integers(value) }.message
  end

  def test_what_the_codec_does_not_know_is_passed_over
    assert_nil NATIVE.check_integers([nil, 1.5, Object.new, Class, :a, 2**70, { Object.new => CUT.to_s }])
  end

  def test_a_hash_is_read_by_its_own_each
    kept = nil
    yielding = OwnEach.new do |block|
      kept = block
      block.call([1, 2, CUT]) # only two belong to the entry
      block.call([])
      block.call(1, 2)
    end
    yielding[CUT] = CUT # which its each does not show
    assert_nil NATIVE.check_integers([yielding])
    assert_cut OwnEach.new { |block| block.call([CUT, 1]) }
    assert_cut OwnEach.new { |block| block.call([1, CUT]) }
    assert_cut OwnEach.new { |block| block.call(1, CUT) }
    assert_cut OwnEach.new { |block| block.call(1, [{ 1 => CUT }]) }
    # Long after the walk.
    GC.start
    assert_raises(RangeError) { kept.call(1, [CUT]) }
  end

  def test_an_each_may_leave
    assert_equal :gone, catch(:away) { NATIVE.check_integers([OwnEach.new { throw :away, :gone }]) }
    assert_raises(IOError) { NATIVE.check_integers({ 1 => OwnEach.new { raise IOError } }) }
    fiber = Fiber.new { NATIVE.check_integers([OwnEach.new { |block| block.call(1, Fiber.yield) }]) }
    fiber.resume
    assert_raises(RangeError) { fiber.resume(CUT) }
  end

  def test_an_each_may_change_what_is_read
    array = [nil, CUT]
    array[0] = OwnEach.new { array.clear }
    assert_nil NATIVE.check_integers(array)
    array = [OwnEach.new { array << CUT if array.size == 1 }]
    assert_cut array
  end

  def test_what_contains_itself_ends
    array = []
    array << { 1 => array }
    assert_raises(SystemStackError) { NATIVE.check_integers(array) }
    own = OwnEach.new { |block| block.call(1, [own]) }
    assert_raises(SystemStackError) { NATIVE.check_integers(own) }
    Thread.new { assert_raises(SystemStackError) { NATIVE.check_integers(array) } }.join
    Fiber.new { assert_raises(SystemStackError) { NATIVE.check_integers(array) } }.resume
  end

  # What has been encoded has at most 64 levels.
  def test_deep_values
    deep = 100.times.inject(CUT) { |value, level| level.odd? ? [value] : { "k" => value } }
    assert_cut deep
    Fiber.new { assert_cut deep }.resume
  end

  def test_frame_length
    frame = VORN::Stream::Encoder.new.frame("abc")
    assert_equal frame.bytesize, NATIVE.frame_length("x" + frame, 1, 100)
    assert_equal frame.bytesize, NATIVE.frame_length(frame, 0, 5)
    assert_equal "a frame announces 5 bytes, 4 are accepted", NATIVE.frame_length(frame, 0, 4)
    (0...8).each { |size| assert_nil NATIVE.frame_length(frame[0, size], 0, 100) }
    assert_nil NATIVE.frame_length(frame, frame.bytesize, 100)
    assert_nil NATIVE.frame_length(frame, 2**40, 100)
    reason = NATIVE.frame_length("\x01", 0, 100)
    assert_equal ["bytes that belong to no frame", Encoding::UTF_8], [reason, reason.encoding]
    assert_raises(TypeError) { NATIVE.frame_length(nil, 0, 100) }
    assert_raises(RangeError) { NATIVE.frame_length(frame, 0, 2**70) }
  end

  def test_read_frame
    frame = VORN::PROTO::PacketFrameIn.new
    encoder = VORN::Stream::Encoder.new
    bytes = encoder.frame("abc", [1])
    2.times { assert_equal ["abc", [1]], NATIVE.read_frame(frame, bytes, 100) }
    assert_equal 0, frame.seq
    assert_equal [], NATIVE.read_frame(frame, encoder.frame, 0)
    long = VORN::Stream::Encoder.new(twelve_byte_header: true)
    assert_equal [nil], NATIVE.read_frame(frame, long.frame(nil), 1)
    assert_nil NATIVE.read_frame(frame, bytes, bytes.bytesize - 9), "announces a byte too many"
    assert_nil NATIVE.read_frame(frame, bytes[0..-2], 100)
    assert_nil NATIVE.read_frame(frame, bytes + "x", 100)
    assert_nil NATIVE.read_frame(frame, "", 100)
    assert_nil NATIVE.read_frame(frame, "x" + bytes, 100)
    assert_raises(RuntimeError) { NATIVE.read_frame(frame, encoder.frame(true).sub(/.\z/n, "\x7F".b), 100) }
    assert_raises(TypeError) { NATIVE.read_frame(frame, nil, 100) }
    assert_raises(NoMethodError) { NATIVE.read_frame(nil, bytes, 100) }
  end

  # The remains of a frame that was longer lie behind a shorter one.
  def test_read_frame_with_a_value_that_ends_behind_it
    frame = VORN::PROTO::PacketFrameIn.new
    encoder = VORN::Stream::Encoder.new
    NATIVE.read_frame(frame, encoder.frame("x" * 50), 100)
    payload = encoder.frame("x" * 20)[8, 11] # of 22 bytes
    assert_nil NATIVE.read_frame(frame, header(payload) + payload, 100)
  end

  # The frame's header, for a payload that no encoder makes.
  def header(payload)
    out = VORN::PROTO::PacketFrameOut.new.reset
    out.write_raw(payload)
    out.compute_frame_header.to_str[0, 8]
  end

  def test_only_the_init_function_is_exported
    library = $LOADED_FEATURES.grep(/vorn_rpc_stream_ext\.#{RbConfig::CONFIG["DLEXT"]}\z/).first
    assert_equal ["Init_vorn_rpc_stream_ext"], exported(library)
  end

  def test_nothing_of_it_is_public
    assert_raises(NameError) { VORN::Stream::Native }
    assert_equal "1", run_ruby("print $LOADED_FEATURES.count { |file| file =~ /vorn_rpc\\w*_ext\\./ }")
  end
end
