# frozen_string_literal: true

require_relative "helper"

# `to_int` of an argument is Ruby code that runs after a method has been called and before it does its work: it can
# change the buffer, the frame and the other arguments. The method raises a Ruby exception or returns the right result.
class ArgumentConversionTest < ExtTest
  # A number whose to_int runs a block first.
  class OwnInteger
    def initialize(number, &body)
      @number = number
      @body = body
    end

    def to_int
      @body.call
      @number
    end
  end

  def setup
    @buf = PacketBuf.new
  end

  FRAME = [0xA5, 1, 0, 7, 0, 0, 0, 2, 0x41, 0x42].pack("C*")

  def test_offset_that_changes_the_chunk
    out_of_range = "packetframein_assemble: offset argument out of range"
    frame = PacketFrameIn.new.reset
    [->(chunk) { chunk.clear }, ->(chunk) { chunk.replace("abc") }, ->(chunk) { chunk.slice!(4..-1) }].each do |change|
      chunk = FRAME * 1000
      offset = OwnInteger.new(4) { change.call(chunk) }
      assert_raises_with(ArgumentError, out_of_range) { frame.assemble(chunk, offset) }
    end
    chunk = "x".dup
    assert_equal 10, frame.assemble(chunk, OwnInteger.new(1) { chunk << FRAME << MEGABYTES })
    assert_predicate frame, :have_complete_frame?
  end

  def test_offset_that_uses_the_frame
    frame = PacketFrameIn.new.reset
    frame.assemble(FRAME[0, 9], 0)
    assert_equal 10, frame.assemble(FRAME, OwnInteger.new(0) { frame.reset })
    assert_predicate frame, :have_complete_frame?
    assert_equal 0, frame.assemble(FRAME, OwnInteger.new(0) { frame.reset.assemble(FRAME, 0) })
    assert_predicate frame, :have_complete_frame?
    frame.reset
    assert_equal 10, frame.assemble(FRAME, OwnInteger.new(0) { frame.seek(1000).write_raw("x").reset })
  end

  def test_conversions_that_raise_and_throw
    frame_out = PacketFrameOut.new
    frame_in = PacketFrameIn.new.reset
    decoding = buf_of("\x81")
    calls = {
      "pos=" => ->(n) { @buf.pos = n },
      "seek" => ->(n) { @buf.seek(n) },
      "next_seq=" => ->(n) { frame_out.next_seq = n },
      "index_within_payload?" => ->(n) { @buf.index_within_payload?(n) },
      "assemble" => ->(n) { frame_in.assemble(FRAME, n) },
      "extract_object" => ->(n) { decoding.maxdepth = n; decoding.extract_object },
      "copy_object" => ->(n) { decoding.maxdepth = n; decoding.copy_object(@buf) }
    }
    calls.each do |name, call|
      assert_raises_with(IOError, "own", name) { call.call(OwnInteger.new(0) { raise IOError, "own" }) }
      assert_equal :thrown, catch(:out) { call.call(OwnInteger.new(0) { throw :out, :thrown }) }, name
    end
    assert_equal [0, 0, 0, 0], [@buf.pos, frame_out.next_seq, frame_in.pos, decoding.pos]
  end

  def test_position_that_uses_the_buffer
    @buf.pos = OwnInteger.new(2) { @buf << MEGABYTES }
    assert_equal 2, @buf.pos
    assert @buf.index_within_payload?(OwnInteger.new(3_000_100) { @buf.seek(3_000_100) << 1 })
  end

  def test_maxdepth_that_uses_the_buffer
    buf = buf_of(Hex.decode("0a 81 82 0b 83"))
    buf.maxdepth = OwnInteger.new(64) { buf.seek(4) }
    assert_equal 3, buf.extract_object, "extract_object reads the position after the conversion"
    buf.maxdepth = OwnInteger.new(64) { buf.seek(5).write_raw(MEGABYTES).seek(0) }
    assert_equal [1, 2], buf.extract_object
    buf.maxdepth = OwnInteger.new(64) { buf.maxdepth = 64; buf.seek(0).extract_object }
    assert_equal 3, buf.extract_object
    to = PacketBuf.new
    buf.maxdepth = OwnInteger.new(64) { buf.seek(4); to.write_raw(MEGABYTES).seek(2) }
    buf.copy_object(to)
    assert_equal [5, 3, "mm\x83"], [buf.pos, to.pos, to.to_str.force_encoding("UTF-8")]
  end
end
