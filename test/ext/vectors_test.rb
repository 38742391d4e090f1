# frozen_string_literal: true

require_relative "helper"
require "support/notation"
require "support/vectors"

# Runs the Ruby codec on the tables that both codecs must satisfy.
class VectorsTest < Minitest::Test
  PROTO = VORN::PROTO

  MESSAGES = {
    "max_depth" => "decode_next_packetbuf_rbobj: maxdepth exceeded",
    "underrun" => "decode_next_packetbuf_rbobj: buffer underrun",
    "underrun_int" => "decode_next_packetbuf_rbobj: buffer underrun decoding integer",
    "underrun_length" => "decode_next_packetbuf_rbstr: buffer underrun decoding data length",
    "underrun_string" => "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes",
    "underrun_float" => "decode_packetbuf_rbfloat: buffer underrun",
    "underrun_double" => "decode_packetbuf_rbdouble: buffer underrun",
    "underrun_hash" => "decode_packetbuf_rbhash: buffer underrun",
    "underrun_array" => "decode_packetbuf_rbarray: buffer underrun",
    "unknown_type" => "decode_next_packetbuf_rbobj: unrecognized protocol transport type"
  }

  # A reader that skipped rows would leave them untested.
  def test_rows
    { values: Vectors.values, faults: Vectors.faults, frames: Vectors.frames }.each do |table, read|
      lines = File.readlines(File.join(Vectors::DIR, "#{table}.txt"))
      assert_equal lines.map { |line| line[/\A\s*([^#|\s][^|]*?)\s*\|/, 1] }.compact, read.map(&:name)
    end
  end

  # --- values

  CUT_ELSEWHERE = [-2**62..-2**31 - 1, 2**31..2**62 - 1].freeze

  Vectors.values.each do |vector|
    define_method("test_value #{vector.name}") do
      assert_equal vector.ruby, decoded(plain(vector.bytes, true))
      buf = plain(vector.bytes + "\x00".b, false)
      assert_equal vector.ruby_as_strings, decoded(buf)
      assert_equal vector.bytes.size, buf.pos
      next if vector.ruby_bytes.nil?
      object = plain(vector.bytes, true).extract_object
      # Where addresses have 32 bits, an immediate Integer fits 32 bits, and the others are written in full.
      whole = 0.size < 8 && object.is_a?(Integer) && CUT_ELSEWHERE.any? { |range| range.cover?(object) }
      expected = whole ? vector.bytes : vector.ruby_bytes
      assert_equal Hex.encode(expected), Hex.encode((PROTO::PacketBuf.new << object).to_str)
    end

    define_method("test_value inside a payload #{vector.name}") do
      frame = in_frame(vector.bytes + "\x00".b, vector.bytes.size)
      assert_equal vector.ruby_as_strings, decoded(frame)
      assert_equal 8 + vector.bytes.size, frame.pos
    end

    define_method("test_value copied #{vector.name}") do
      source = plain(vector.bytes + "\x00".b, true)
      copy = PROTO::PacketBuf.new
      assert_same source, source.copy_object(copy)
      assert_equal Hex.encode(vector.bytes), Hex.encode(copy.to_str)
      assert_equal vector.bytes.size, source.pos
    end

    define_method("test_value cut short #{vector.name}") do
      Vectors.cuts(vector.bytes.size).each do |size|
        buf = plain(vector.bytes[0, size], true)
        error = assert_raises(RuntimeError) { buf.extract_object }
        assert_match(/: buffer underrun/, error.message)
        assert_operator buf.pos, :<=, size
      end
    end

    # All bytes are stored, but the payload ends early: only the body of a string may be read beyond it.
    define_method("test_value behind the payload's end #{vector.name}") do
      Vectors.cuts(vector.bytes.size).each do |size|
        begin
          assert_equal vector.ruby_as_strings, decoded(in_frame(vector.bytes, size))
          assert_includes 5..7, vector.bytes.getbyte(0)
        rescue RuntimeError => error
          assert_match(/: buffer underrun/, error.message)
        end
      end
    end
  end

  # --- faults

  Vectors.faults.each do |vector|
    define_method("test_fault #{vector.name}") do
      start = vector.payload ? 8 : 0
      buf = vector.payload ? in_frame(vector.bytes, vector.payload) : plain(vector.bytes, true)
      buf.instance_variable_set(:@preserve_symbols_on_extract, true)
      buf.instance_variable_set(:@maxdepth, vector.maxdepth)
      case vector.fault
      when "none"
        buf.extract_object
      when "symbol_encoding"
        assert_raises(EncodingError) { buf.extract_object }
      else
        error = assert_raises(RuntimeError) { buf.extract_object }
        assert_equal MESSAGES.fetch(vector.fault), error.message
      end
      assert_equal vector.pos, buf.pos - start
    end
  end

  # --- frames

  Vectors.frames.each do |vector|
    define_method("test_frame whole #{vector.name}") do
      frame = PROTO::PacketFrameIn.new.reset
      assert_equal vector.consumed, frame.assemble(vector.stream, 0)
      check_frame(vector, frame)
    end

    define_method("test_frame byte by byte #{vector.name}") do
      frame = PROTO::PacketFrameIn.new.reset
      bytes = vector.stream.bytes.map { |byte| byte.chr }
      assert_equal vector.consumed, bytes.inject(0) { |sum, byte| sum + frame.assemble(byte, 0) }
      check_frame(vector, frame)
    end

    define_method("test_frame in two pieces #{vector.name}") do
      Vectors.cuts(vector.stream.size).each do |cut|
        frame = PROTO::PacketFrameIn.new.reset
        consumed = frame.assemble(vector.stream[0, cut], 0) + frame.assemble(vector.stream[cut..-1], 0)
        assert_equal vector.consumed, consumed
        check_frame(vector, frame)
      end
    end

    next unless vector.written
    define_method("test_frame written #{vector.name}") do
      frame = PROTO::PacketFrameOut.new
      frame.use_12byte_header = vector.layout == 12
      frame.next_seq = vector.seq
      frame.write_raw(vector.payload)
      frame.compute_frame_header
      assert_equal Hex.encode(vector.stream[0, vector.consumed]), Hex.encode(frame.to_str)
    end
  end

  private

  def plain(bytes, preserve_symbols)
    buf = PROTO::PacketBuf.new.write_raw(bytes).reset
    buf.instance_variable_set(:@preserve_symbols_on_extract, preserve_symbols)
    buf
  end

  # A complete frame that stores all bytes behind its header, but whose payload has only the first `payload` of them:
  # the others are left over from an earlier frame.
  def in_frame(bytes, payload)
    frame = PROTO::PacketFrameIn.new
    [bytes.size, payload].each do |size|
      frame.reset
      frame.assemble([0xA5, 1, 0, size].pack("CCnN") + bytes[0, size], 0)
    end
    frame.seek_payload_start
  end

  # The next value, in the tables' notation.
  def decoded(buf)
    Notation.of(buf.extract_object)
  rescue EncodingError
    "!symbol_encoding"
  end

  def check_frame(vector, frame)
    assert_equal vector.complete?, frame.have_complete_frame?
    assert_equal vector.seq, frame.seq
    assert_equal vector.data_len, frame.payload_size
    assert_equal vector.layout || 8, frame.seek_payload_start.pos
    return if !vector.complete? || vector.data_len == 0
    frame.pos = vector.layout + vector.data_len
    payload = frame.to_str[vector.layout..-1]
    # In digits only for the message: to encode every payload took a quarter of all tests' time.
    assert_equal Hex.encode(vector.payload), Hex.encode(payload) if payload != vector.payload
  end
end
