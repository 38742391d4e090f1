# frozen_string_literal: true

require "bigdecimal"
require "date"
require "stringio"
require_relative "../ext/helper"
require_relative "../ext/own_each"
require_relative "../ext/ruby_process"
require "support/packing_notation"
require "support/vectors"
require "vorn_rpc/packing"
require "vorn_rpc/stream"

# Values that the wire has no type for, packed into ones that it has, and back.
class PackingTest < Minitest::Test
  include RubyProcess
  include VORN

  Point = Struct.new(:x, :y)
  LIB = File.expand_path("../../lib", __dir__)
  ALL = Packing.new(*Packing::READY_MADE) { |types| types.struct("point", Point) }

  def to_wire(value)
    PROTO::PacketBuf.new.write_object(value).to_str
  end

  def from_wire(bytes, symbols = false)
    buf = PROTO::PacketBuf.new.write_raw(bytes).seek(0)
    buf.preserve_symbols_on_extract = symbols
    buf.extract_object
  end

  def there_and_back(value, packing = ALL)
    packing.unpack(from_wire(to_wire(packing.pack(value)), true))
  end

  # As == says, and with what it ignores: types of numbers, encodings, offsets.
  def exactly(value)
    case value
    when Array then value.map { |member| exactly(member) }
    when Hash then value.map { |key, member| [exactly(key), exactly(member)] }
    when Point then [Point, exactly(value.to_a)]
    when Time then [Time, value.to_r, value.utc?, value.utc_offset]
    when String then [value.b, value.encoding == Encoding::UTF_8]
    when BigDecimal then [BigDecimal, value.to_s("E")]
    when Symbol then [Symbol, value.to_s.b]
    else [value.class, value]
    end
  end

  def assert_raises_with(error, text)
    raised = assert_raises(error) { yield }
    assert_equal [error, text], [raised.class, raised.message]
    raised
  end

  # --- the table ----------------------------------------------------------------------------------------------------

  def value_of(expression)
    point = Point # the expressions say `point`
    point && eval(expression.dup.force_encoding(Encoding::UTF_8)) # whatever the locale
  end

  Vectors.table("packing.txt", 5).each do |name, bytes, meaning, text|
    define_method("test_vector #{name}") do
      bytes = Vectors.bytes(bytes)
      if meaning.start_with?("!")
        error = assert_raises(Packing::UnknownType, Packing::Malformed) { ALL.unpack(from_wire(bytes)) }
        assert_equal [meaning, "="], ["!#{error.class.name[/\w+\z/]}", text]
      else
        assert_equal Vectors.expand(text), meaning[/\A(< )?/] + PackingNotation.of(ALL.unpack(from_wire(bytes)))
        value = value_of(meaning.sub(/\A< /, ""))
        assert_equal exactly(value), exactly(ALL.unpack(from_wire(bytes)))
        assert_equal exactly(value), exactly(ALL.unpack(from_wire(bytes, true)))
        assert_equal !meaning.start_with?("<"), to_wire(ALL.pack(value)) == bytes
      end
    end
  end

  # --- round trips --------------------------------------------------------------------------------------------------

  # Values that look like packed ones, above all.
  class Values
    KEYS = ["~", "~~", "~time", "~~time", "~integer", "~point", "~none", "a", "", "~\u00E9", "~\xFF".b,
            "\xFE~".b].freeze
    SYMBOLS = KEYS.select { |key| key.dup.force_encoding("UTF-8").valid_encoding? }.map { |key| key.b.to_sym }.freeze

    def initialize(seed)
      @random = Random.new(seed)
    end

    def one_of(list)
      list[@random.rand(list.size)]
    end

    def scalar
      case @random.rand(10)
      when 0 then one_of([nil, true, false])
      when 1 then one_of([1, -1]) * @random.rand(1 << one_of([3, 31, 32, 62, 64, 200]))
      when 2 then one_of([2**31, -2**31, 2**62, 2**63, 2**64]) + one_of([-1, 0, 1])
      when 3 then one_of([0.5, -0.0, Float::INFINITY, 1e300])
      when 4 then one_of(KEYS)
      when 5 then time
      when 6 then Date.jd(2_440_588 + @random.rand(200_000) - 100_000)
      when 7 then BigDecimal("#{@random.rand(10**9)}e#{@random.rand(50) - 25}")
      when 8 then Rational(@random.rand(2**40) - 2**39, 1 + @random.rand(2**33))
      else one_of(SYMBOLS)
      end
    end

    def time
      time = Time.at(@random.rand(2**36) - 2**35, Rational(@random.rand(10**9), 1000))
      @random.rand(2) == 0 ? time.utc : time.localtime(@random.rand(50_000) - 25_000)
    end

    def value(levels)
      return scalar if levels == 0
      case @random.rand(6)
      when 0, 1 then Array.new(@random.rand(4)) { value(levels - 1) }
      when 2 then { one_of(KEYS) => value(levels - 1) }
      when 3, 4 then hash(levels - 1)
      else Point.new(value(levels - 1), value(levels - 1))
      end
    end

    def hash(levels)
      Array.new(@random.rand(4)).each_with_object({}) do |_, hash|
        hash[@random.rand(3) == 0 ? value(levels) : one_of(KEYS)] = value(levels)
      end
    end
  end

  ROUNDS = 3000

  def test_what_is_packed_comes_back
    seed = Random.new_seed
    values = Values.new(seed)
    ROUNDS.times do |round|
      value = values.value(round % 5)
      packed = ALL.pack(value)
      note = "seed #{seed}, round #{round}"
      assert_equal exactly(value), exactly(there_and_back(value)), note
      assert_equal exactly(packed), exactly(there_and_back(packed)), "#{note}: packed twice"
      assert_equal exactly(value), exactly(ALL.unpack(there_and_back(packed))), "#{note}: unpacked twice"
    end
  end

  # What arrives may be anything: it is unpacked, or refused with an error of the module.
  def test_anything_may_arrive
    seed = Random.new_seed
    values = Values.new(seed)
    refused = 0
    ROUNDS.times do |round|
      begin
        ALL.unpack(from_wire(to_wire(ALL.pack(values.value(round % 5))).gsub(/~~/n, "~a")))
      rescue Packing::Error
        refused += 1
      rescue StandardError => error
        raise unless error.message.start_with?("decode_") # lengths have not changed, but ends may have
      end
    end
    assert_operator refused, :>, ROUNDS / 100, "seed #{seed}"
  end

  # A Symbol arrives as a String: a Hash of two keys as one of one key.
  def test_keys_that_become_one
    [{ :"~date" => 0, "~date" => 1 }, { "~date" => 0, :"~date" => 1 }].each do |hash|
      assert_equal({ "~date" => 1 }, ALL.unpack(from_wire(to_wire(ALL.pack(hash)))))
    end
    twice = {}.compare_by_identity
    ["~date", "~date"].each { |key| twice[key.dup] = 1 }
    assert_equal({ "~date" => 1 }, there_and_back(twice))
  end

  def test_keys_in_other_encodings
    utf16 = "~a".b.force_encoding("UTF-16LE") # one character, whose first byte is that of a tilde
    assert_equal [["~a".b, false]], exactly(there_and_back(utf16 => 1).keys)
    ascii = "~a".dup.force_encoding("US-ASCII")
    assert_equal [["~a".b, false]], exactly(there_and_back(ascii => 1).keys)
    assert_equal [:"~a", :"~\u00E9"], there_and_back("~a": 1, "~\u00E9": 2).keys
    assert_equal [:"~a"], there_and_back(utf16.to_sym => 1).keys
  end

  def test_times
    assert_equal Rational(1, 10**9), there_and_back(Time.at(Rational(5, 3 * 10**9))).to_r, "to the nanosecond"
    assert_equal 0, there_and_back(Time.at(Rational(-1, 3 * 10**9))).to_r + Rational(1, 10**9), "rounded down"
    local = Time.now
    back = there_and_back(local)
    assert_equal [local, local.utc_offset, false], [back, back.utc_offset, back.utc?]
    day = 86_400
    assert_equal Time.at((2**31 - 1) * day), there_and_back(Time.at((2**31 - 1) * day))
    assert_equal Time.at(-2**31 * day), there_and_back(Time.at(-2**31 * day))
    assert_raises(Packing::UnknownType) { Packing.new(:time).pack(Time.at(2**31 * day)) }
  end

  def test_lengths_of_numbers
    most = 10**4096 - 1
    assert_equal [most, -most], there_and_back([most, -most])
    [most + 1, -most - 1, 2**(2**20)].each do |number|
      assert_raises_with(RangeError, "a number of more than 4096 digits") { ALL.pack(number) }
    end
    assert_equal Rational(most, most - 1), there_and_back(Rational(most, most - 1))
    assert_raises(RangeError) { ALL.pack(Rational(1, most + 1)) }
    assert_equal BigDecimal("0.#{most}"), there_and_back(BigDecimal("0.#{most}"))
    text = "a BigDecimal that is not finite, or has more than 4096 digits or powers of ten"
    ["0.#{most}1", "1e4096", "1e-4098", "NaN", "Infinity", "-Infinity"].each do |number|
      assert_raises_with(RangeError, text) { ALL.pack(BigDecimal(number)) }
    end
    assert_equal "-0.0", there_and_back(BigDecimal("-0")).to_s
    ["integer", "rational", "decimal"].zip(["", "1/", "0."]) do |tag, start|
      ALL.unpack("~#{tag}" => "#{start}#{most}")
      assert_raises(Packing::Malformed) { ALL.unpack("~#{tag}" => "#{start}#{most}1") }
    end
  end

  # --- depth --------------------------------------------------------------------------------------------------------

  def nested(levels, innermost)
    levels.times.inject(innermost) { |inner, _| [inner] }
  end

  def test_depth_is_that_of_the_wire
    deepest = nested(63, 1)
    assert_equal deepest, there_and_back(deepest)
    assert_equal nested(62, 2**40), there_and_back(nested(62, 2**40))
    too_deep = [nested(64, 1), nested(63, 2**40), { nested(63, 1) => 1 }, { "~a" => nested(63, 1) }]
    too_deep.each { |value| assert_raises_with(Packing::TooDeep, "more than 64 levels") { ALL.pack(value) } }
    assert_equal deepest, ALL.unpack(deepest)
    [nested(64, 1), { nested(63, 1) => 1 }, { "~~a" => nested(63, 1) }, { "~point" => nested(63, 1) }].each do |value|
      assert_raises_with(Packing::TooDeep, "more than 64 levels") { ALL.unpack(value) }
    end
  end

  def test_values_that_contain_themselves
    array = []
    array << array
    hash = {}
    hash[1] = hash
    own = Class.new
    packing = Packing.new { |types| types.type("own", own, pack: ->(object) { object }, unpack: ->(body) { body }) }
    [array, hash, own.new].each { |value| assert_raises(Packing::TooDeep) { packing.pack(value) } }
    assert_raises(Packing::TooDeep) { packing.unpack(array) }
  end

  # --- types --------------------------------------------------------------------------------------------------------

  def test_nothing_is_registered_by_itself
    none = Packing.new
    [Time.now, Date.new, 1..2, Point.new, Object.new, Rational(1, 2), Complex(1, 2), BigDecimal("1")].each do |value|
      assert_raises_with(Packing::UnknownType, "no type is registered for #{value.class}") { none.pack([value]) }
    end
    [2**31, -2**31 - 1, 2**62, 2**64].each do |value|
      assert_raises_with(Packing::UnknownType, "no type is registered for Integers beyond 32 bits") { none.pack(value) }
    end
    assert_raises_with(Packing::UnknownType, "no type is registered for BasicObject") { none.pack(BasicObject.new) }
    assert_raises_with(Packing::UnknownType, 'no type is registered for the tag "time"') { none.unpack("~time" => 1) }
    plain = [nil, true, false, 2**31 - 1, -2**31, 1.5, "text", "\xFF".b, :symbol, { 1 => [] }]
    assert_equal plain, there_and_back(plain, none)
  end

  def test_what_a_peer_names_is_shown_safely
    error = assert_raises(Packing::UnknownType) { ALL.unpack("~\e[2J\u202E#{'x' * 100}" => 1) }
    assert_equal 'no type is registered for the tag "\\e[2J\\xE2\\x80\\xAE' + "x" * 33 + '"', error.message
  end

  def test_only_the_class_itself
    child = Class.new(Point)
    [child.new(1, 2), DateTime.new, Class.new(Time).new].each do |value|
      assert_raises(Packing::UnknownType) { ALL.pack(value) }
    end
    own = Class.new(String)
    packing = Packing.new { |types| types.type("own", own, pack: ->(text) { [text.size] }, unpack: ->(body) { body }) }
    assert_equal({ "~own" => [2] }, packing.pack(own.new("ab")))
    assert_equal({ { "~own" => [2] } => 1 }, packing.pack(own.new("~b") => 1))
    assert_equal "ab", Packing.new.pack(own.new("ab"))
  end

  def test_types_within_types
    money = Struct.new(:amount, :at)
    packing = Packing.new(:decimal, :time) { |types| types.struct("money", money) }
    value = { money.new(BigDecimal("1.10"), Time.at(0)) => [money.new(nil, [Time.at(1)])] }
    assert_equal value, there_and_back(value, packing)
  end

  def test_structs_with_keywords
    struct = begin
      Struct.new(:x, :y, keyword_init: true)
    rescue TypeError
      skip "Ruby #{RUBY_VERSION} has no keyword_init"
    end
    [struct, Class.new(struct)].each do |klass|
      packing = Packing.new { |types| types.struct("s", klass) }
      assert_equal klass.new(x: 1, y: 2), there_and_back(klass.new(x: 1, y: 2), packing)
    end
  end

  def test_data
    skip "Ruby #{RUBY_VERSION} has no Data" unless RUBY_VERSION >= "3.2"
    data = Data.define(:x, :y)
    packing = Packing.new { |types| types.struct("d", data) }
    assert_equal data.new(1, [2]), there_and_back(data.new(1, [2]), packing)
    assert_raises(Packing::Malformed) { packing.unpack("~d" => [1]) }
  end

  def test_members_as_they_are
    shows_less = Struct.new(:x, :y) do
      def to_h
        {}
      end

      def to_a
        []
      end
    end
    packing = Packing.new { |types| types.struct("s", shows_less) }
    assert_equal({ "~s" => [1, 2] }, packing.pack(shows_less.new(1, 2)))
  end

  def test_numbers_are_strings
    [:"5", 5, nil, ["5"]].each do |body|
      assert_raises_with(Packing::Malformed, "cannot unpack the type integer: ArgumentError") do
        ALL.unpack("~integer" => body)
      end
    end
  end

  def test_what_a_type_raises
    cause = IndexError.new("hostile")
    packing = Packing.new do |types|
      types.type("a", Point, pack: ->(_) { raise cause }, unpack: ->(_) { raise cause })
      types.type("b", Object, pack: ->(_) {}, unpack: ->(body) { ALL.unpack(body) })
      types.type("c", Range, pack: ->(_) {}, unpack: ->(_) { throw :out, 5 })
    end
    assert_same cause, assert_raises(IndexError) { packing.pack(Point.new) }
    error = assert_raises_with(Packing::Malformed, "cannot unpack the type a: IndexError") { packing.unpack("~a" => 1) }
    assert_same cause, error.cause
    assert_raises(Packing::UnknownType) { packing.unpack("~b" => { "~~none" => 1 }) }
    assert_equal 5, catch(:out) { packing.unpack("~c" => nil) }
  end

  def test_registration
    nothing = ->(_) {}
    type = ->(tag, klass) { Packing.new { |types| types.type(tag, klass, pack: nothing, unpack: nothing) } }
    ["", "~a", "a~", "a b", "\u00E9", "a\n", :a, nil].each do |tag|
      assert_raises_with(ArgumentError, "a tag is printable ASCII without blanks and tildes") { type.call(tag, Point) }
    end
    assert_raises_with(ArgumentError, "not a class: Comparable") { type.call("a", Comparable) }
    [nil, true, false, 1.5, "", :a, [], {}].map(&:class).each do |klass|
      assert_raises_with(ArgumentError, "the wire carries #{klass}") { type.call("a", klass) }
    end
    assert_raises_with(ArgumentError, "no ready-made type :none") { Packing.new(:none) }
    assert_raises_with(ArgumentError, "the tag time is taken") { Packing.new(:time, :time) }
    assert_raises_with(ArgumentError, "#{Point} has a type") do
      Packing.new { |types| types.struct("a", Point).struct("b", Point) }
    end
    assert ALL.frozen?
    assert_raises(RuntimeError) { ALL.type("late", Range, pack: nothing, unpack: nothing) }
  end

  # --- with the rest ------------------------------------------------------------------------------------------------

  def test_nothing_of_the_value_is_changed
    text = "text".dup
    value = { "~a" => [text], "b" => { 1 => Point.new(1, 2) } }
    copy = Marshal.load(Marshal.dump(value))
    packed = ALL.pack(value)
    assert_equal copy, value
    assert_same text, packed["~~a"][0]
    copy = Marshal.load(Marshal.dump(packed))
    ALL.unpack(packed)
    assert_equal copy, packed
  end

  def test_a_hash_with_its_own_each
    assert_equal({ "~~a" => 1 }, ALL.pack(OwnEach.new { |block| block.call("~a", 1) }))
  end

  def test_on_a_stream
    io = StringIO.new("".b)
    writer = Stream::Writer.new(io)
    messages = [Time.at(5_000_000_000).utc, { "id" => 2**40 }, Point.new(1, 2)]
    messages.each { |message| writer << ALL.pack(message) }
    io.rewind
    assert_equal messages, Stream::Reader.new(io).map { |message| ALL.unpack(message) }
  end

  def test_loaded_by_its_name_only
    code = 'require "vorn_rpc/stream"; print defined?(VORN::Packing).inspect; require "vorn_rpc/packing"; ' \
           "print VORN::Packing.new.pack(1), defined?(Date).inspect, defined?(BigDecimal).inspect"
    assert_equal "nil1nilnil", run_ruby(code, "-I#{LIB}")
  end
end
