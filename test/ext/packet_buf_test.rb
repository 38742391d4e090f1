# frozen_string_literal: true

require_relative "helper"
require "objspace"

class PacketBufTest < ExtTest
  IntegerLike = Struct.new(:to_int)
  StringLike = Struct.new(:to_str)

  def setup
    @buf = PacketBuf.new
  end

  def test_fresh_buffer_is_empty
    assert_equal [0, 0], [@buf.pos, @buf.payload_size]
    assert_binary "", @buf.to_str
  end

  def test_defaults
    assert_equal [64, false], [@buf.maxdepth, @buf.preserve_symbols_on_extract]
    assert_equal [:@maxdepth, :@preserve_symbols_on_extract], @buf.instance_variables.sort
  end

  def test_initialize_takes_no_arguments
    assert_raises(ArgumentError) { PacketBuf.new(1) }
  end

  def test_initialize_again_restores_the_defaults_and_nothing_else
    @buf << 1
    @buf.maxdepth = 3
    @buf.preserve_symbols_on_extract = true
    assert_same @buf, @buf.send(:initialize)
    assert_equal [64, false, 1], [@buf.maxdepth, @buf.preserve_symbols_on_extract, @buf.pos]
  end

  def test_accessors_store_any_value
    [nil, false, 0, -1, 2**70, 1.5, "12", :sym, Object.new].each do |value|
      @buf.maxdepth = value
      @buf.preserve_symbols_on_extract = value
      kept = [@buf.maxdepth, @buf.preserve_symbols_on_extract,
              @buf.instance_variable_get(:@maxdepth), @buf.instance_variable_get(:@preserve_symbols_on_extract),
              @buf.send(:maxdepth=, value), @buf.send(:preserve_symbols_on_extract=, value)]
      assert kept.all? { |object| object.equal?(value) }, kept.inspect
    end
  end

  def test_methods_that_return_the_receiver
    other = PacketBuf.new
    calls = {
      reset: [], :pos= => [0], seek: [0], write_raw: ["\x00"], write_object: [1], :<< => [1],
      seek_payload_start: [], copy_object: [other]
    }
    calls.each { |name, arguments| assert_same @buf, @buf.send(name, *arguments), name }
  end

  # --- writing -------------------------------------------------------------------------------------------

  def test_write_raw
    @buf.write_raw("abc")
    assert_equal [3, 3], [@buf.pos, @buf.payload_size]
    assert_binary "abc", @buf.to_str
  end

  def test_writing_overwrites_and_never_inserts
    @buf.write_raw("abc").seek(1).write_raw("-")
    assert_equal [2, 3], [@buf.pos, @buf.payload_size]
    assert_binary "a-c", @buf.seek(3).to_str
  end

  def test_writing_over_the_end_overwrites_and_appends
    @buf.write_raw("abc").seek(2).write_raw("CDE")
    assert_binary "abCDE", @buf.to_str
  end

  def test_writing_beyond_the_end_fills_the_gap_with_zeros
    @buf.seek(10)
    assert_raises_with(RuntimeError, "packetbuf_to_str: pos outside payload") { @buf.to_str }
    @buf.write_raw("x")
    assert_equal 11, @buf.payload_size
    assert_binary "\0" * 10 + "x", @buf.to_str
  end

  def test_values_also_overwrite_and_fill_the_gap
    @buf.write_raw("abcdef").seek(1) << nil << "x"
    assert_binary "a\0\x07\x01xf", @buf.seek(6).to_str
    @buf.seek(8) << true
    assert_binary "a\0\x07\x01xf\0\0\x02", @buf.to_str
  end

  def test_writing_nothing_does_nothing
    @buf.seek(10).write_raw("")
    assert_equal [10, 0], [@buf.pos, @buf.payload_size]
  end

  def test_write_raw_takes_the_bytes_whatever_their_encoding
    strings = ["\u00e9", "\u00e9".encode("UTF-16LE"), "\u00e9".encode("ISO-8859-1"), "\xff\xfe", "a\0b",
               "frozen".dup.freeze, ("x" * 1000)[500..-1], Class.new(String).new("sub")]
    strings.each { |string| assert_binary string, PacketBuf.new.write_raw(string).to_str }
  end

  def test_write_raw_refuses_all_but_strings
    [nil, true, false, 1, 2**70, 1.5, :sym, [], {}, Object.new, StringLike.new("abc"), @buf].each do |value|
      assert_raises_with(RuntimeError, "packetbuf_write_raw: value to write must be String") { @buf.write_raw(value) }
    end
    assert_equal [0, 0], [@buf.pos, @buf.payload_size]
  end

  # The initial storage has 65536 bytes; growing beyond that moves them.
  def test_growth_keeps_the_bytes
    [65_534, 65_535, 65_536, 65_537, 131_072, 1_000_000].each do |size|
      bytes = (0...size).map { |i| i * 31 % 251 }.pack("C*")
      buf = PacketBuf.new.write_raw(bytes)
      buf << 1
      assert_equal size + 1, buf.payload_size
      assert buf.to_str == bytes + "\x81".b, "bytes after growing to #{size} and one more"
    end
  end

  # --- position ------------------------------------------------------------------------------------------

  POSITIONS = {
    0 => 0, 5 => 5, 2**30 - 1 => 2**30 - 1, 2**30 => 2**30, 2**31 => 2**31, 2**32 - 1 => 2**32 - 1,
    2**32 => 0, 2**32 + 5 => 5, 2**62 - 1 => 2**32 - 1, 2**62 + 5 => 5, 2**63 + 7 => 7, 2**64 - 1 => 2**32 - 1,
    -1 => 2**32 - 1, -2**31 => 2**31, -2**62 - 1 => 2**32 - 1, -2**63 => 0,
    3.9 => 3, IntegerLike.new(12) => 12, IntegerLike.new(2**32 + 1) => 1
  }.freeze

  def test_positions_are_truncated_to_32_bits
    POSITIONS.each do |given, expected|
      next assert_raises(RangeError) { @buf.pos = given } unless fits?(given)
      @buf.pos = given
      assert_equal expected, @buf.pos, "pos = #{given.inspect}"
      assert_equal expected, @buf.reset.seek(given).pos, "seek(#{given.inspect})"
    end
  end

  def test_non_integers_are_refused_by_ruby
    { 2**64 => RangeError, -2**64 => RangeError, Float::NAN => RangeError, nil => TypeError, "1" => TypeError,
      :one => TypeError, Object.new => TypeError, IntegerLike.new("1") => TypeError }.each do |value, error|
      @buf.seek(4)
      [:pos=, :seek, :index_within_payload?].each do |name|
        assert_raises(error, "#{name} #{value.inspect}") { @buf.send(name, value) }
      end
      assert_equal 4, @buf.pos
    end
  end

  def test_reset_keeps_the_bytes
    @buf.write_raw("abc").reset
    assert_binary "", @buf.to_str
    assert_equal [0, 3], [@buf.pos, @buf.payload_size]
    assert_binary "abc", @buf.seek(3).to_str
  end

  def test_seek_payload_start
    assert_equal 0, @buf.write_raw("abc").seek_payload_start.pos
  end

  def test_index_within_payload
    refute @buf.index_within_payload?(0)
    @buf.write_raw("abc")
    { 0 => true, 2 => true, 3 => false, 2**31 => false, 2**32 - 1 => false, -1 => false,
      2**32 + 2 => true, 2**32 + 3 => false, 2**64 - 2**32 + 1 => true }.each do |index, expected|
      next unless fits?(index)
      assert_equal expected, @buf.index_within_payload?(index), index
    end
  end

  # --- to_str --------------------------------------------------------------------------------------------

  def test_to_str_ends_at_the_position
    @buf.write_raw("abc")
    assert_equal ["", "a", "ab", "abc"], (0..3).map { |pos| @buf.seek(pos).to_str }
    [4, 2**31, 2**32 - 1].each do |pos|
      assert_raises_with(RuntimeError, "packetbuf_to_str: pos outside payload") { @buf.seek(pos).to_str }
    end
  end

  def test_to_str_returns_a_new_string
    @buf.write_raw("abc")
    first = @buf.to_str
    first << "more"
    @buf.seek(0).write_raw("ABC")
    assert_equal ["abcmore", "ABC"], [first, @buf.to_str]
    refute_predicate @buf.to_str, :frozen?
  end

  def test_to_str_is_binary
    string = @buf.write_raw("\u00e9").to_str
    assert_binary "\xc3\xa9", string
    assert_predicate string, :valid_encoding?
    refute_predicate string, :ascii_only?
    assert_predicate PacketBuf.new.write_raw("abc").to_str, :ascii_only?
  end

  def test_a_buffer_converts_implicitly_to_a_string
    @buf.write_raw("abc")
    assert_equal "<abc", "<" + @buf
    assert_equal "abc", File.join(@buf)
  end

  # --- the object ----------------------------------------------------------------------------------------

  def test_memsize_of_includes_the_storage
    [PacketBuf, PacketFrameIn, PacketFrameOut].each do |buffer|
      assert_operator ObjectSpace.memsize_of(buffer.new), :<=, 1000
    end
    assert_operator ObjectSpace.memsize_of(@buf << "x" * 100_000), :>=, 100_000
    assert_operator ObjectSpace.memsize_of(@buf.write_raw("x" * 1_000_000)), :>=, 1_000_000
  end

  def test_instances_of_subclasses
    subclass = Class.new(PacketBuf) do
      def initialize(bytes)
        super()
        write_raw(bytes)
      end
    end
    assert_equal "abc", subclass.new("abc").to_str
  end
end
