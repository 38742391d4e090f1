# frozen_string_literal: true

require_relative "helper"

class ObjectSerializerTest < ExtTest
  MAX_DEPTH = "serialize_rbobj_to_packetbuf: maxdepth exceeded"
  UNSUPPORTED = "serialize_rbobj_to_packetbuf: unsupported rb_type"

  def nested(levels, innermost)
    levels.times.inject(innermost) { |inner, _| [inner] }
  end

  # Hex of what a failing write leaves in the buffer.
  def leftover(error, text, obj)
    buf = PacketBuf.new
    assert_raises_with(error, text) { buf << obj }
    bytes = buf.to_str
    assert_equal bytes.size, buf.payload_size
    Hex.encode(bytes)
  end

  def test_constants
    assert_equal %w[00 01 02], [nil, false, true].map { |value| encode(value) }
    assert_equal "02 01", Hex.encode((PacketBuf.new << true << false).to_str)
  end

  # --- integers ------------------------------------------------------------------------------------------

  INTEGERS = {
    0 => "80", 1 => "81", -1 => "c1", 31 => "9f", -31 => "df", 32 => "a0 01", -32 => "e0 01",
    4095 => "bf 7f", 4096 => "a0 80 01", 2**19 - 1 => "bf ff 7f", 2**19 => "a0 80 80 01",
    2**26 - 1 => "bf ff ff 7f", 2**26 => "a0 80 80 80 01",
    2**31 - 1 => "bf ff ff ff 1f", -2**31 => "e0 80 80 80 20"
  }.freeze

  def test_integers_of_32_bits
    INTEGERS.each { |number, bytes| assert_equal bytes, encode(number), number }
  end

  IMMEDIATE_INTEGERS = {
    2**31 => "e0 80 80 80 20", -2**31 - 1 => "bf ff ff ff 1f", 2**32 - 1 => "c1", 2**32 => "80", 2**32 + 5 => "85",
    -2**32 - 5 => "c5", 2**40 => "80", 2**40 + 2**31 - 1 => "bf ff ff ff 1f", 2**62 - 1 => "c1", -2**62 => "80"
  }.freeze

  def test_immediate_integers_wrap_around_to_32_bits
    skip "immediate Integers have 31 bits here" if 0.size < 8
    IMMEDIATE_INTEGERS.each { |number, bytes| assert_equal bytes, encode(number), number }
  end

  HEAP_INTEGERS = {
    2**62 => "a0 80 80 80 80 80 80 80 80 02", -2**62 - 1 => "e1 80 80 80 80 80 80 80 80 02",
    2**62 + 2**32 + 5 => "a5 80 80 80 c0 80 80 80 80 02",
    2**63 - 1 => "bf ff ff ff ff ff ff ff ff 03", -2**63 => "e0 80 80 80 80 80 80 80 80 04"
  }.freeze

  def test_integers_on_the_heap_are_written_in_full
    HEAP_INTEGERS.each { |number, bytes| assert_equal bytes, encode(number), number }
  end

  # Where addresses have 32 bits, the heap begins at 2**30.
  def test_integers_that_only_64_bit_interpreters_cut
    skip "immediate Integers have 63 bits here" unless 0.size < 8
    numbers = [2**30 - 1, 2**30, 2**31, 2**40 + 5, 2**62 - 1].flat_map { |number| [number, -number, -number - 1] }
    numbers.each do |number|
      assert_equal number, decode(encode(number))
    end
    assert_equal "a0 80 80 80 20", encode(2**31)
  end

  def test_integers_beyond_64_bits
    [2**63, -2**63 - 1, 2**64 - 1, 2**64, -2**64, 2**200].each do |number|
      buf = PacketBuf.new
      assert_match(/too big/, assert_raises(RangeError, number.to_s) { buf << [1, number] }.message)
      assert_equal "0a 81", Hex.encode(buf.to_str)
    end
  end

  def test_every_bit_of_an_integer_survives
    (0..63).each do |bit|
      [2**bit, 2**bit - 1, -2**bit].each do |number|
        next if number == 2**63
        heap = 2**(0.size * 8 - 2)
        written = number.between?(-heap, heap - 1) ? [number].pack("l").unpack("l")[0] : number
        assert_equal written, decode(encode(number)), number
      end
    end
  end

  # --- floats --------------------------------------------------------------------------------------------

  def test_floats
    assert_equal "04 3f f8 00 00 00 00 00 00", encode(1.5)
    # Floats between 1e-77 and 1e77 are immediate values, the others are on the heap.
    [0.0, -0.0, 1e-320, Float::MIN, 1e-78, 0.1, -2.5, 1e78, Float::MAX, Float::INFINITY, -Float::INFINITY,
     Float::NAN].each { |float| assert_equal "04 #{Hex.encode([float].pack('G'))}", encode(float), float }
  end

  # --- strings -------------------------------------------------------------------------------------------

  def test_only_utf8_strings_are_text
    assert_equal "07 03 61 62 63", encode("abc")
    others = %w[ASCII-8BIT US-ASCII ISO-8859-1 Windows-1252 EUC-JP UTF8-MAC UTF-16LE UTF-32BE UTF-7 GB18030]
    others.each { |name| assert_equal "05 03 61 62 63", encode("abc".dup.force_encoding(name)), name }
    (Encoding.list - [Encoding::UTF_8]).each do |encoding|
      assert_equal "05 00", encode("".dup.force_encoding(encoding)), encoding
    end
    assert_equal "07 00", encode("")
  end

  def test_bytes_of_strings_are_taken_as_they_are
    assert_equal "07 02 c3 a9", encode("\u00e9")
    assert_equal "05 01 e9", encode("\u00e9".encode("ISO-8859-1"))
    assert_equal "07 03 ff c3 00", encode("\xff\xc3\0")
    assert_equal "07 03 61 00 62", encode("a\0b")
    assert_equal "05 03 61 00 62", encode("a\0b".b)
  end

  STRING_LENGTHS = {
    1 => "01", 127 => "7f", 128 => "80 01", 255 => "ff 01", 16_383 => "ff 7f", 16_384 => "80 80 01",
    65_535 => "ff ff 03", 65_536 => "80 80 04", 2_097_151 => "ff ff 7f", 2_097_152 => "80 80 80 01"
  }.freeze

  def test_lengths_of_strings
    STRING_LENGTHS.each do |length, bytes|
      written = PacketBuf.new.write_object("x" * length).to_str
      prefix = Hex.decode("07 #{bytes}")
      assert_equal [prefix, length + prefix.size], [written[0, prefix.size], written.size]
      assert written.end_with?("x" * length)
    end
  end

  class Text < String
    def to_s
      raise "must not be called"
    end
    alias to_str to_s
    alias bytes to_s
    alias length to_s
  end

  def test_strings_of_any_kind
    shared = "0123456789" * 20
    singleton = "abc".dup
    def singleton.encoding; Encoding::BINARY; end
    strings = { "abc".dup.freeze => "abc", shared[150..-1] => "0123456789" * 5, shared[15, 3] => "567",
                Text.new("abc") => "abc", singleton => "abc" }
    strings.each { |string, bytes| assert_equal "07 #{Hex.encode([bytes.size].pack('C') + bytes)}", encode(string) }
  end

  # --- symbols -------------------------------------------------------------------------------------------

  def test_symbols
    dynamic = "dynamic #{object_id}"
    { abc: "06 03 61 62 63", :"" => "06 00", :[]= => "06 03 5b 5d 3d", :"a b" => "06 03 61 20 62",
      :"\u00e9" => "06 02 c3 a9", "\xff".b.to_sym => "06 01 ff", "\u00e9".encode("ISO-8859-1").to_sym => "06 01 e9",
      dynamic.to_sym => "06 #{Hex.encode([dynamic.size].pack("C") + dynamic)}" }.each do |symbol, bytes|
      assert_equal bytes, encode(symbol), symbol.inspect
    end
  end

  def test_symbols_end_at_a_zero_byte
    { "a\0b" => "06 01 61", "\0" => "06 00", "\0a" => "06 00", "ab\0" => "06 02 61 62",
      "ab".encode("UTF-16LE") => "06 01 61" }.each do |name, bytes|
      assert_equal bytes, encode(name.to_sym), name.inspect
    end
  end

  def test_long_symbols
    name = "x" * 70_000
    assert PacketBuf.new.write_object(name.to_sym).to_str == Hex.decode("06 f0 a2 04") + name
  end

  # --- containers ----------------------------------------------------------------------------------------

  class OddArray < Array
    def each
      raise "must not be called"
    end
    alias [] each
    alias size each
    alias to_a each
    alias to_ary each
  end

  class PlainHash < Hash
    def to_h
      raise "must not be called"
    end
    alias [] to_h
    alias each_pair to_h
    alias keys to_h
    alias size to_h
    alias to_hash to_h
  end

  # Immediate Integers at the start of an Array are written in batches, all others one at a time.
  def test_arrays_of_integers
    random = Random.new(1)
    integers = Array.new(200) { random.rand(2**(1 + random.rand(62))) * [1, -1].sample(random: random) }
    mixed = [integers[0, 3] + ["text"] + integers[3, 3],
             integers[0, 2] + [2**62, 1.5] + integers[2, 2],
             [nil] + integers]
    [1, 2, 3, 63, 64, 65, 128, 200].map { |n| integers[0, n] }.concat(mixed).each do |array|
      assert_equal "0a #{array.map { |element| encode(element) }.join(' ')} 0b", encode(array)
    end
    assert_raises_with(RuntimeError, MAX_DEPTH) { encode(63.times.inject([1, 2]) { |inner, _| [inner] }) }
    assert_equal "0a " * 63 + "81 82" + " 0b" * 63, encode(62.times.inject([1, 2]) { |inner, _| [inner] })
  end

  def test_arrays
    assert_equal "0a 0b", encode([])
    assert_equal "0a 81 0a 82 0b 83 0b", encode([1, [2], 3])
    assert_equal "0a 81 82 83 0b", encode([0, 1, 2, 3][1..-1])
    assert_equal "0a 81 0b", encode(OddArray.new([1]))
    assert_equal "0a 81 0b", encode([1].freeze)
    assert_equal "0a #{'80 ' * 100_000}0b", encode([0] * 100_000)
  end

  def test_hashes
    assert_equal "08 09", encode({})
    assert_equal "08 81 0a 00 0b 09", encode(1 => [nil])
    assert_equal "08 08 09 0a 0b 09", encode({} => [])
    assert_equal "08 81 82 09", encode(PlainHash[1, 2])
    assert_equal "08 81 82 09", encode({ 1 => 2 }.freeze)
  end

  def test_hashes_keep_the_order_of_their_entries
    hash = { 3 => 0, 1 => 1, 2 => 2 }
    hash.delete(3)
    hash[3] = 3
    assert_equal "08 81 81 82 82 83 83 09", encode(hash)
    large = (1..1000).map { |n| [n * 7919 % 1009, n] }
    assert_equal large, decode(encode(Hash[large])).to_a
  end

  def test_hashes_are_written_by_their_entries_alone
    defaults = Hash.new { |hash, key| hash[key] = "made" }
    defaults[1] = 2
    assert_equal "08 81 82 09", encode(defaults)
    assert_equal "08 81 82 09", encode(Hash.new(:default).merge(1 => 2))
    assert_equal 1, defaults.size
  end

  def test_hashes_that_compare_keys_by_identity
    hash = {}.compare_by_identity
    hash["a".dup] = 1
    hash["b".dup] = 2
    hash["a".dup] = 3
    text = "08 07 01 61 81 07 01 62 82 07 01 61 83 09"
    assert_equal text, encode(hash)
    assert_equal [["a", 3], ["b", 2]], decode(text).to_a
  end

  # --- depth ---------------------------------------------------------------------------------------------

  def test_deepest_values
    assert_equal "0a " * 63 + "81" + " 0b" * 63, encode(nested(63, 1))
    assert_equal "0a " * 64 + "0b" + " 0b" * 63, encode(nested(63, []))
    hash = 63.times.inject(1) { |inner, _| { inner => 2 } }
    assert_equal "08 " * 63 + "81" + " 82 09" * 63, encode(hash)
  end

  def test_values_that_are_too_deep
    [1, nil, [], {}, "x"].each do |innermost|
      assert_equal ("0a " * 64).strip, leftover(RuntimeError, MAX_DEPTH, nested(64, innermost))
    end
    hash = 64.times.inject(1) { |inner, _| { 0 => inner } }
    assert_equal ("08 80 " * 63 + "08"), leftover(RuntimeError, MAX_DEPTH, hash)
    key = 64.times.inject(1) { |inner, _| { inner => 0 } }
    assert_equal ("08 " * 64).strip, leftover(RuntimeError, MAX_DEPTH, key)
  end

  def test_depth_is_restored_behind_containers_and_failures
    assert_equal "0a " + "0a 0b " * 200 + "0b", encode([[]] * 200)
    assert_equal "0a " + "08 81 82 09 " * 200 + "0b", encode([{ 1 => 2 }] * 200)
    buf = PacketBuf.new
    3.times { assert_raises(RuntimeError) { buf << nested(64, 1) } }
    assert_equal "0a 81 0b", Hex.encode((buf.reset << [1]).to_str)
  end

  def test_values_that_contain_themselves
    array = []
    array << array
    hash = {}
    hash[:self] = hash
    [array, hash].each { |value| leftover(RuntimeError, MAX_DEPTH, value) }
  end

  def test_writing_has_its_own_limit
    [0, 1, nil, 2**31 - 1].each do |maxdepth|
      buf = PacketBuf.new
      buf.maxdepth = maxdepth
      assert_equal "0a 0a 81 0b 0b", Hex.encode((buf << [[1]]).to_str)
      assert_raises_with(RuntimeError, MAX_DEPTH) { buf << nested(64, 1) }
    end
  end

  # --- what cannot be written ----------------------------------------------------------------------------

  def unsupported_values
    [Object.new, BasicObject.new, Object, Kernel, Class.new, /x/, Struct.new(:a).new(1), 1..2, "a".."b", Rational(1, 2),
     Complex(1, 2), Time.now, proc {}, method(:puts), $stdout, "a".match(/a/), RuntimeError.new, [].each,
     Encoding::UTF_8, Thread.current, Random.new, ObjectSpace::WeakMap.new, PacketBuf.new, PacketFrameOut.new]
  end

  def test_unsupported_values
    unsupported_values.each do |value|
      assert_equal "", leftover(RuntimeError, UNSUPPORTED, value)
      if Object === value # a BasicObject has no `hash`, which the literal below calls
        keyed = {}.compare_by_identity.merge!(value => 1)
        assert_equal "08", leftover(RuntimeError, UNSUPPORTED, keyed)
      end
      assert_equal "0a 81 08 82 0a", leftover(RuntimeError, UNSUPPORTED, [1, { 2 => [value] }])
      assert_equal "08 81", leftover(RuntimeError, UNSUPPORTED, 1 => value)
    end
  end

  def test_no_value_is_converted
    value = Object.new
    %w[to_str to_ary to_hash to_int to_sym to_s to_a to_h each].each do |name|
      value.define_singleton_method(name) { raise "must not be called" }
    end
    leftover(RuntimeError, UNSUPPORTED, value)
  end

  # --- where it is written -------------------------------------------------------------------------------

  def test_chains
    buf = PacketBuf.new
    assert_same buf, buf << 1
    assert_same buf, buf.write_object(2)
    assert_equal "81 82", Hex.encode(buf.to_str)
  end

  def test_values_overwrite_what_is_stored
    buf = PacketBuf.new.write_raw("-" * 10).seek(2)
    buf << "ab" << 32
    assert_equal "2d 2d 07 02 61 62 a0 01 2d 2d", Hex.encode(buf.seek(10).to_str)
  end

  def test_values_across_the_end_of_the_initial_storage
    values = [nil, -2**63, 1.5, "text", "bytes".b, :symbol, [1, [2]], { "k" => "v" }, "x" * 300]
    values.each do |value|
      bytes = PacketBuf.new.write_object(value).to_str
      (65_536 - bytes.size - 1..65_536).each do |start|
        buf = PacketBuf.new.seek(start) << value
        assert buf.to_str == "\0" * start + bytes, "#{value.inspect} at #{start}"
      end
    end
  end
end
