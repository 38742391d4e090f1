# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"
require_relative "../support/model"
require "objspace"

class ObjectDecoderTest < ExtTest
  include RubyProcess

  OBJ = "decode_next_packetbuf_rbobj: "
  MAX_DEPTH = OBJ + "maxdepth exceeded"
  UNKNOWN = OBJ + "unrecognized protocol transport type"

  def assert_decodes(expected, text, options = {})
    assert_equal [Model.signature(expected)], [Model.signature(decode(text, options))], text
  end

  def assert_fault(message, pos, text, options = {})
    buf = buf_of(Hex.decode(text))
    options.each { |name, value| buf.public_send("#{name}=", value) }
    assert_raises_with(RuntimeError, message, text) { buf.extract_object }
    assert_equal pos, buf.pos, "position after #{text}"
    assert_raises_with(RuntimeError, message, text) { buf.seek(0).copy_object(PacketBuf.new) }
    assert_equal pos, buf.pos, "position after copying #{text}"
  end

  def assert_as_modelled(bytes)
    value, fault, pos = Model.decode(bytes)
    buf = buf_of(bytes)
    outcome = begin
      [Model.signature(buf.extract_object), nil]
    rescue RuntimeError => error
      [nil, error.message]
    end
    assert_equal [Model.signature(value), fault, pos], [*outcome, buf.pos], Hex.encode(bytes)
  end

  # --- scalars -------------------------------------------------------------------------------------------

  VALUES = {
    "00" => nil, "01" => false, "02" => true,
    "80" => 0, "c0" => 0, "81" => 1, "c1" => -1, "9f" => 31, "df" => -31, "a0 01" => 32, "e0 01" => -32,
    "bf 7f" => 4095, "a0 80 01" => 4096, "bf ff ff ff 1f" => 2**31 - 1, "e0 80 80 80 20" => -2**31,
    "a0 80 80 80 20" => 2**31, "a0 80 80 80 80 01" => 2**33,
    "a0 80 80 80 80 80 80 80 80 02" => 2**62, "bf ff ff ff ff ff ff ff ff 03" => 2**63 - 1,
    "e0 80 80 80 80 80 80 80 80 04" => -2**63, "ff ff ff ff ff ff ff ff ff 03" => -2**63 + 1,
    "03 3f c0 00 00" => 1.5, "03 80 00 00 00" => -0.0, "03 7f 80 00 00" => Float::INFINITY,
    "03 3d cc cc cd" => 0.10000000149011612, "04 3f f8 00 00 00 00 00 00" => 1.5,
    "04 3f b9 99 99 99 99 99 9a" => 0.1, "04 ff f0 00 00 00 00 00 00" => -Float::INFINITY,
    "04 00 00 00 00 00 00 00 01" => 5e-324,
    "07 00" => "", "07 02 c3 a9" => "\u00e9", "07 01 ff" => "\xff", "07 03 61 00 62" => "a\0b",
    "05 00" => "".b, "05 03 61 62 63" => "abc".b, "05 02 c3 a9" => "\u00e9".b,
    "06 00" => "", "06 03 61 62 63" => "abc", "06 03 61 00 62" => "a\0b",
    "0a 0b" => [], "0a 81 0a 0b 82 0b" => [1, [], 2], "08 09" => {}, "08 81 82 81 83 09" => { 1 => 3 },
    "08 0a 81 0b 08 09 09" => { [1] => {} }
  }.freeze

  def test_values
    VALUES.each { |text, value| assert_decodes value, text }
  end

  def test_not_a_number
    ["03 7f c0 00 00", "04 7f f8 00 00 00 00 00 00"].each { |text| assert_predicate decode(text), :nan? }
  end

  # Peers may write overlong varints. Shifts wrap around modulo 64, and bits that a shift moves out are lost.
  def test_overlong_varints
    assert_decodes 0, "a0 #{'80 ' * 500}00"
    assert_decodes 5, "a5 #{'80 ' * 100}00"
    assert_decodes 16, "a0 #{'80 ' * 9}01"
    assert_decodes 2**62 + 2**61, "a0 80 80 80 80 80 80 80 80 03"
    assert_decodes(-2**63, "a0 80 80 80 80 80 80 80 80 04")
    assert_decodes 0, "a0 80 80 80 80 80 80 80 80 08"
    assert_decodes "abc", "07 83 80 80 80 00 61 62 63"
    assert_decodes "abc", "07 83 #{'80 ' * 40}00 61 62 63"
  end

  def test_only_32_bits_of_a_length_count
    assert_decodes "abc", "07 83 80 80 80 10 61 62 63"
    assert_decodes "", "07 80 80 80 80 10"
    assert_fault "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes", 6, "07 ff ff ff ff 0f 61"
  end

  # --- strings and symbols -------------------------------------------------------------------------------

  def test_symbols_are_symbols_on_demand
    { true => :abc, 1 => :abc, "no" => :abc, false => "abc", nil => "abc" }.each do |wanted, expected|
      assert_decodes expected, "06 03 61 62 63", preserve_symbols_on_extract: wanted
    end
    assert_decodes({ a: [:"", :"\u00e9", :"a\0b"] }, "08 06 01 61 0a 06 00 06 02 c3 a9 06 03 61 00 62 0b 09",
                   preserve_symbols_on_extract: true)
  end

  def test_symbols_with_a_broken_encoding_are_refused
    buf = buf_of(Hex.decode("0a 06 01 ff 0b"))
    buf.preserve_symbols_on_extract = true
    assert_match(/invalid (encoding|symbol)/, assert_raises(EncodingError) { buf.extract_object }.message)
    assert_equal 4, buf.pos, "position behind the symbol"
    assert_decodes ["\xff"], "0a 06 01 ff 0b"
  end

  def test_strings_are_fresh_and_mutable
    value = decode("0a 07 01 61 05 01 61 06 01 61 07 00 05 00 0b")
    value.each { |string| string << "more" }
    assert_equal %w[amore amore amore more more], value
    assert_equal 5, value.map(&:object_id).uniq.size
  end

  def test_strings_know_whether_they_are_valid
    { "07 02 c3 a9" => [true, false], "07 01 ff" => [false, false], "07 01 61" => [true, true],
      "05 01 ff" => [true, false], "05 00" => [true, true] }.each do |text, expected|
      string = decode(text)
      assert_equal expected, [string.valid_encoding?, string.ascii_only?], text
    end
  end

  def test_strings_from_outside_are_tainted
    skip "Ruby #{RUBY_VERSION} taints nothing" if RUBY_VERSION >= "2.7"
    strings = ["07 01 61", "07 00", "05 01 61", "05 00", "06 01 61", "06 00"]
    strings.each { |text| assert_predicate decode(text), :tainted?, text }
    value = decode("0a #{strings.join(' ')} 08 07 01 61 07 01 62 09 0b")
    assert value[0..-2].all?(&:tainted?)
    assert value.last.to_a.flatten.all?(&:tainted?)
  end

  # --- hashes --------------------------------------------------------------------------------------------

  def test_hashes_keep_first_position_and_last_value_of_a_key
    assert_equal [[1, 5], [2, 3]], decode("08 81 82 82 83 81 85 09").to_a
    assert_equal [["a", 2]], decode("08 07 01 61 81 06 01 61 82 09").to_a
    assert_equal 2, decode("08 07 02 c3 a9 81 05 02 c3 a9 82 09").size, "text and bytes are two keys"
    assert_equal 1, decode("08 07 01 61 81 05 01 61 82 09").size, "in ASCII they are one"
  end

  def test_keys_of_every_kind
    text = "08 00 80 01 80 02 80 81 80 04 3f f8 00 00 00 00 00 00 80 07 01 61 80 0a 81 0b 80 08 81 82 09 80 09"
    assert_equal [nil, false, true, 1, 1.5, "a", [1], { 1 => 2 }], decode(text).keys
  end

  def test_string_keys_are_frozen_as_ruby_does
    decode("08 07 01 61 07 01 62 05 01 63 80 06 01 64 80 09").each do |key, value|
      assert_predicate key, :frozen?
      refute_predicate value, :frozen? if value.is_a?(String)
    end
  end

  # The key cache must compare all bytes of a key, and its encoding.
  def test_keys_that_look_alike_from_message_to_message
    lengths = [0, 1, 2, 3, 23, 24, 63, 64, 65, 127, 128, 129, 1000]
    alike = lengths.flat_map do |length|
      ["a" * length, "b" * length, "\xFF" * length, ("a" * length).tap { |text| text[length / 3] = "-" if length > 2 }]
    end
    keys = alike.flat_map { |text| [text, text.b, text.b.force_encoding("UTF-8")] }.uniq { |k| [k, k.encoding] }
    3.times do
      keys.each do |key|
        name = "#{key.bytesize} bytes, #{key.encoding}"
        read = decode(encode(key => key)).first
        assert_equal [key, key.encoding], [read[0], read[0].encoding], name
        assert_equal [key, key.encoding], [read[1], read[1].encoding], name
        assert_predicate read[0], :frozen?, name
        refute_predicate read[1], :frozen?, name
      end
    end
  end

  # Inserting pair by pair compares each key once with those before it. Inserting in batches, each of which makes the
  # Hash rehash all its keys, would be quadratic in the pairs, and cubic if all hashes of the keys collide.
  def test_the_cost_of_large_hashes
    comparisons = run_ruby(<<-'RUBY').to_i
      $compared = 0
      class Array
        alias plain_eql? eql?
        remove_method :hash, :eql?
        def hash
          1
        end
        def eql?(other)
          $compared += 1
          plain_eql?(other)
        end
      end
      buf = PacketBuf.new.write_raw("\x08")
      300.times { |i| buf << [i] << nil }
      buf.write_raw("\x09").seek(0)
      hash = buf.extract_object
      print $compared
      abort "keys lost" unless hash.size == 300
    RUBY
    assert_operator comparisons, :<=, 300 * 300 / 2 + 300
  end

  def test_hashes_are_plain
    hash = decode("08 81 82 09")
    assert_equal [Hash, nil, nil, 2], [hash.class, hash.default, hash.default_proc, hash[1]]
    assert_equal({ 1 => 2, 3 => 4 }, hash.merge!(3 => 4))
  end

  # --- depth ---------------------------------------------------------------------------------------------

  def nested(levels, innermost)
    "0a " * levels + innermost + " 0b" * levels
  end

  def test_depth
    assert_decodes 63.times.inject(1) { |inner, _| [inner] }, nested(63, "81")
    assert_decodes 63.times.inject([]) { |inner, _| [inner] }, nested(63, "0a 0b")
    assert_fault MAX_DEPTH, 64, nested(64, "81")
    assert_fault MAX_DEPTH, 64, nested(64, "0a 0b")
    assert_fault MAX_DEPTH, 126 + 1, "08 80 " * 63 + "08 80 80" + " 09" * 64
  end

  LIMITS = {
    64 => 64, 1 => 1, 3 => 3, 100 => 100, 2**31 - 1 => 500, 2**32 + 7 => 7, 7.9 => 7,
    Struct.new(:to_int).new(5) => 5, -2**32 + 9 => 9, 2**63 - 2**31 - 1 => 500
  }.freeze

  def test_limits
    LIMITS.each do |maxdepth, levels|
      next unless fits?(maxdepth, false)
      decode(nested(levels - 1, "81"), maxdepth: maxdepth)
      assert_fault MAX_DEPTH, levels, nested(levels, "81"), maxdepth: maxdepth if levels < 500
    end
  end

  def test_limits_that_refuse_everything
    [0, -1, -64, -2**31, 2**31, 2**32, 2**40, 2**62, -2**63, 0.9, -3.5, Struct.new(:to_int).new(0)].each do |maxdepth|
      next unless fits?(maxdepth, false)
      assert_fault MAX_DEPTH, 0, "00", maxdepth: maxdepth
      assert_fault MAX_DEPTH, 0, "", maxdepth: maxdepth
    end
  end

  def test_limits_that_are_no_numbers
    { nil => TypeError, "64" => TypeError, :x => TypeError, [] => TypeError, true => TypeError, Object.new => TypeError,
      2**63 => RangeError, 2**64 => RangeError, Float::INFINITY => RangeError,
      Struct.new(:to_int).new(nil) => TypeError }.each do |maxdepth, error|
      buf = buf_of(Hex.decode("81"))
      buf.maxdepth = maxdepth
      assert_raises(error, maxdepth.inspect) { buf.extract_object }
      assert_raises(error, maxdepth.inspect) { buf.copy_object(PacketBuf.new) }
      assert_equal 0, buf.pos
      buf.maxdepth = 64
      assert_equal 1, buf.extract_object
    end
  end

  def test_options_are_the_instance_variables
    buf = buf_of(Hex.decode("06 01 61"))
    buf.instance_variable_set(:@preserve_symbols_on_extract, true)
    assert_equal :a, buf.extract_object
    buf.instance_variable_set(:@maxdepth, 0)
    assert_raises_with(RuntimeError, MAX_DEPTH) { buf.seek(0).extract_object }
    buf.send(:remove_instance_variable, :@maxdepth)
    assert_raises(TypeError) { buf.extract_object }
  end

  # --- faults --------------------------------------------------------------------------------------------

  FAULTS = [
    ["", OBJ + "buffer underrun", 0],
    ["a0", OBJ + "buffer underrun decoding integer", 1],
    ["a0 80 80", OBJ + "buffer underrun decoding integer", 3],
    ["07", "decode_next_packetbuf_rbstr: buffer underrun decoding data length", 1],
    ["05 80 80", "decode_next_packetbuf_rbstr: buffer underrun decoding data length", 3],
    ["07 05 61 62", "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes", 2],
    ["06 01", "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes", 2],
    ["03 00 00 00", "decode_packetbuf_rbfloat: buffer underrun", 1],
    ["03", "decode_packetbuf_rbfloat: buffer underrun", 1],
    ["04 00 00 00 00 00 00 00", "decode_packetbuf_rbdouble: buffer underrun", 1],
    ["08", "decode_packetbuf_rbhash: buffer underrun", 1],
    ["08 81", OBJ + "buffer underrun", 2],
    ["08 81 82", "decode_packetbuf_rbhash: buffer underrun", 3],
    ["0a", "decode_packetbuf_rbarray: buffer underrun", 1],
    ["0a 81", "decode_packetbuf_rbarray: buffer underrun", 2],
    ["0a 0a 0b", "decode_packetbuf_rbarray: buffer underrun", 3],
    ["08 81 09", UNKNOWN, 3],
    ["08 0b", UNKNOWN, 2],
    ["0a 09", UNKNOWN, 2],
    ["0a 81 0c", UNKNOWN, 3],
    ["09", UNKNOWN, 1], ["0b", UNKNOWN, 1], ["0c", UNKNOWN, 1], ["7f", UNKNOWN, 1]
  ].freeze

  def test_faults
    FAULTS.each { |text, message, pos| assert_fault message, pos, text }
  end

  def test_position_outside_the_buffer
    [1, 100, 2**32 - 1].each do |pos|
      buf = buf_of("\x81").seek(pos)
      assert_raises_with(RuntimeError, OBJ + "buffer underrun") { buf.extract_object }
      assert_equal pos, buf.pos
    end
  end

  def test_a_fault_leaves_the_buffer_usable
    buf = buf_of(Hex.decode("0a 81 7f 82"))
    assert_raises_with(RuntimeError, UNKNOWN) { buf.extract_object }
    assert_equal 2, buf.extract_object
    assert_equal 1, buf.seek(1).extract_object
  end

  # --- every type byte -----------------------------------------------------------------------------------

  # The bytes that complete a value of this type.
  def body(type)
    case type
    when 0x03 then "3f c0 00 00"
    when 0x04 then "3f f8 00 00 00 00 00 00"
    when 0x05..0x07 then "01 61"
    when 0x08 then "09"
    when 0x0A then "0b"
    when 0x80..0xFF then type[5] == 1 ? "01" : ""
    else ""
    end
  end

  def meaning(type)
    case type
    when 0x00..0x02 then [nil, false, true][type]
    when 0x03, 0x04 then 1.5
    when 0x05 then "a".b
    when 0x06, 0x07 then "a"
    when 0x08 then {}
    when 0x0A then []
    when 0x80..0xFF then ((type & 31) + (type[5] == 1 ? 32 : 0)) * (type[6] == 1 ? -1 : 1)
    end
  end

  def valid?(type)
    type <= 0x08 || type == 0x0A || type >= 0x80
  end

  def test_every_type_byte_in_every_place
    places = {
      "%s" => ->(value) { value }, "0a 81 %s 82 0b" => ->(value) { [1, value, 2] },
      "08 81 %s 09" => ->(value) { { 1 => value } }, "08 %s 81 09" => ->(value) { { value => 1 } },
      "08 81 82 %s 83 09" => ->(value) { { 1 => 2 }.merge(value => 3) }
    }
    ends = { "0a 81 %s 82 0b" => 0x0B, "08 %s 81 09" => 0x09, "08 81 82 %s 83 09" => 0x09 }
    (0..255).each do |type|
      places.each do |place, around|
        value = format("%02x %s", type, body(type)).strip
        if valid?(type)
          assert_decodes around.call(meaning(type)), format(place, value)
        elsif ends[place] != type
          assert_fault UNKNOWN, Hex.decode(place.split("%s").first.to_s).size + 1, format(place, value)
        end
      end
    end
  end

  def test_every_type_byte_alone
    (0..255).each { |type| assert_as_modelled([type].pack("C")) }
  end

  def test_every_pair_of_bytes
    (0..255).each do |first|
      (0..255).each { |second| assert_as_modelled([first, second].pack("CC")) }
    end
  end

  # --- truncated, changed and random bytes ---------------------------------------------------------------

  SAMPLES = [
    [1, -2**63, 2**62, 1.5, nil, [true, [false]], "text", "bytes".b, :symbol],
    { "key" => { [1] => "x" * 130 }, 2 => [] },
    [[[[]]], {}, { {} => {} }], "x" * 200, { "a" => 1.5, "b" => -2**31, :c => "\u00e9" }
  ].freeze

  def samples
    SAMPLES.map { |value| PacketBuf.new.write_object(value).to_str } +
      [Hex.decode("0a 03 3f c0 00 00 a0 80 80 00 c0 0b")]
  end

  def test_every_truncation
    samples.each do |bytes|
      (0..bytes.size).each { |size| assert_as_modelled(bytes[0, size]) }
      assert_as_modelled(bytes + "\x0b")
    end
  end

  def test_every_byte_replaced
    samples.each do |bytes|
      bytes.size.times do |index|
        [0x00, 0x05, 0x08, 0x09, 0x0A, 0x0B, 0x7F, 0x80, 0xFF].each do |byte|
          changed = bytes.dup
          changed.setbyte(index, byte)
          assert_as_modelled(changed)
        end
      end
    end
  end

  def test_random_bytes
    random = Random.new(20_220)
    alphabet = [*0x00..0x0B, 0x80, 0x81, 0xC1, 0xA0, 0xFF, 0x61]
    5000.times do
      bytes = Array.new(random.rand(40)) { alphabet[random.rand(alphabet.size)] }
      assert_as_modelled(bytes.pack("C*"))
    end
  end

  def test_values_round_trip
    SAMPLES.each do |value|
      buf = PacketBuf.new
      buf.preserve_symbols_on_extract = true
      assert_equal Model.signature(value), Model.signature((buf << value).seek(0).extract_object)
    end
  end

  def test_arrays_of_many_sizes
    [0, 1, 15, 16, 17, 31, 32, 33, 1000, 100_000].each do |size|
      value = (0...size).map { |n| n % 32 }
      assert_equal value, (PacketBuf.new << value).seek(0).extract_object
      lists = [value.first(3)] * size
      assert_equal lists, (PacketBuf.new << lists).seek(0).extract_object
    end
  end

  # Arrays are allocated for as many members as the checking pass counted; 40 of them are more than it counts inline.
  def test_arrays_take_no_more_than_their_members
    [17, 100, 1000, 5000].each do |length|
      arrays = (PacketBuf.new << [[nil] * length] * 70).seek(0).extract_object
      arrays.each { |array| assert_operator ObjectSpace.memsize_of(array), :<=, 8 * length + 60, length }
      arrays = (PacketBuf.new << [[[], {}, [nil] * length]] * 70).seek(0).extract_object.map(&:last)
      arrays.each { |array| assert_operator ObjectSpace.memsize_of(array), :<=, 8 * length + 60, length }
    end
  end
end
