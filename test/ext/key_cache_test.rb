# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Recent keys and Symbols, which are found again by their bytes, and how pairs are stored.
class KeyCacheTest < ExtTest
  include RubyProcess

  # Both sides of each way of comparing: nothing, two bytes and a middle one, two words of four, of eight, all bytes,
  # and not kept.
  LENGTHS = [0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 24, 33, 127, 128, 129].freeze

  # Texts that differ in one byte each, or in their encoding.
  def alike
    texts = LENGTHS.flat_map do |length|
      plain = "a" * length
      places = [0, 1, length / 2 - 1, length / 2, length - 2, length - 1].select { |i| (0...length).cover?(i) }
      changed = places.map { |i| plain.dup.tap { |text| text.setbyte(i, 0x62) } }
      accented = length < 2 ? [] : ["\u00e9" + "a" * (length - 2), "a" * (length - 2) + "\u00e9"]
      [plain, *changed, *accented]
    end
    texts.uniq
  end

  def preserving(bytes)
    buf = buf_of(bytes)
    buf.preserve_symbols_on_extract = true
    buf
  end

  def symbol_bytes(name)
    "\x06".b + PacketBuf.new.write_object(name.dup.force_encoding("UTF-8")).to_str[1..-1]
  end

  # --- Symbols -------------------------------------------------------------------------------------------

  def test_symbols_that_look_alike
    2.times do
      alike.each do |name|
        2.times do
          symbol = preserving(symbol_bytes(name)).extract_object
          assert_equal name.to_sym.inspect, symbol.inspect
          assert_same name.to_sym, symbol
          assert_equal name.ascii_only? ? Encoding::US_ASCII : Encoding::UTF_8, symbol.encoding, name
        end
      end
    end
  end

  # As a value and as a key, next to a String and bytes of the same text.
  def test_symbols_strings_and_bytes_of_one_text
    alike.each do |text|
      symbol = symbol_bytes(text)
      string, binary = [text, text.b].map { |it| PacketBuf.new.write_object(it).to_str }
      2.times do
        value = preserving("\x0a".b + symbol + string + binary + symbol + "\x0b".b).extract_object
        assert_equal [text.to_sym, text, text.b, text.to_sym], value
        assert_equal [Encoding::UTF_8, Encoding::BINARY], value[1, 2].map(&:encoding)
        [[symbol, text.to_sym], [string, text], [binary, text.b]].each do |bytes, key|
          read = preserving("\x08".b + bytes + "\x81\x09".b).extract_object.keys[0]
          assert_equal [key, key.class, key.encoding], [read, read.class, read.encoding]
        end
      end
    end
  end

  # In whose place a valid one is.
  def test_broken_symbols_are_refused_again_and_again
    [1, 2, 3, 4, 8, 16, 17, 33, 128].each do |length|
      [0, length / 2, length - 1].each do |at|
        valid = "a" * length
        broken = valid.b.tap { |text| text.setbyte(at, 0xff) }
        assert_equal valid.to_sym, preserving(symbol_bytes(valid)).extract_object
        2.times do
          buf = preserving(symbol_bytes(broken))
          assert_match(/invalid (encoding|symbol)/, assert_raises(EncodingError) { buf.extract_object }.message)
          assert_equal symbol_bytes(broken).bytesize, buf.pos
        end
        assert_equal valid.to_sym, preserving(symbol_bytes(valid)).extract_object
      end
    end
  end

  # Recent ones stay, with or without a collection; as many as there are places, and short ones only.
  def test_recent_symbols_stay_and_others_are_collected
    out = run_ruby(<<-'RUBY')
      def read(name)
        buf = PacketBuf.new.write_raw("\x06" + PacketBuf.new.write_object(name).to_str[1..-1])
        buf.preserve_symbols_on_extract = true
        buf.seek(0).extract_object
      end
      def fill
        20_000.times { |i| read("passing symbol number #{i}") }
        300.times { |i| read("long #{i} ".ljust(129, "x")) }
        nil
      end
      # The stack of a thread that has ended keeps nothing alive.
      Thread.new { fill }.join
      4.times { GC.start }
      names = Symbol.all_symbols.map(&:to_s)
      puts names.grep(/\Apassing symbol number \d/).size <= 140, names.grep(/\Along \d+ x/).size <= 10
      kept = Thread.new { read("a recent symbol").object_id }.value
      2.times { GC.start }
      puts Symbol.all_symbols.map(&:to_s).include?("a recent symbol"), read("a recent symbol").object_id == kept
    RUBY
    assert_equal "true\n" * 4, out
  end

  # --- keys that are stored ------------------------------------------------------------------------------

  # Both sides of what is inserted at once, of what is collected first, and of what is kept in the cache.
  SIZES = [0, 1, 8, 9, 16, 17, 32, 33, 128, 129, 144, 145, 300].freeze

  VALUES = {
    scalars: ->(i) { i.even? ? i : "value #{i}" },
    containers: ->(i) { [i, "value"] },
    both: ->(i) { i % 50 == 41 ? { [i] => i } : i }
  }.freeze

  def keys_of_a_kind(kind, size)
    case kind
    when :strings then Array.new(size) { |i| "key #{i}" }
    when :symbols then Array.new(size) { |i| "symbol #{i}".to_sym }
    when :bytes then Array.new(size) { |i| "\xff#{i}".b }
    when :texts then Array.new(size) { |i| i.even? ? "text #{i}" : ["\u00e9#{i / 4}", "\u00e9#{i / 4}".b][i / 2 % 2] }
    when :integers then Array.new(size) { |i| i * 7 }
    when :large then Array.new(size) { |i| (i.even? ? 0 : 2**62) + i * 7 }
    when :late then Array.new(size) { |i| i > 40 && i % 7 == 0 ? [i] : i }
    else Array.new(size) { |i| ["s#{i}", :"s#{i}", i, [i], i + 0.5, "s#{i}".b][i % 6] }
    end
  end

  def hash_bytes(pairs)
    pairs.inject(PacketBuf.new.write_raw("\x08")) { |buf, (key, value)| buf << key << value }.write_raw("\x09").to_str
  end

  def assert_same_pairs(expected, read, note)
    assert_equal expected.to_a, read.to_a, note
    looks = ->(hash) { hash.keys.map { |key| [key.class, key.frozen?] } }
    assert_equal looks.call(expected), looks.call(read), note
    strings = expected.keys.grep(String)
    assert_equal strings.map(&:encoding), read.keys.grep(String).map(&:encoding), note
    expected.each { |key, value| assert_equal value, read[key], note }
  end

  def test_hashes_of_all_sizes_and_kinds_of_keys
    kinds = [:strings, :symbols, :bytes, :texts, :integers, :large, :late, :mixed]
    kinds.product(VALUES.keys, SIZES) do |kind, of, size|
      keys = keys_of_a_kind(kind, size)
      # Again the first, the last, and some in between: they keep their place and get another value.
      again = [keys.first, keys[size / 2], keys.last].compact.first(size)
      [[], again * 6].each do |more|
        pairs = (keys + more).each_with_index.map { |key, i| [key, VALUES[of].call(i)] }
        expected = pairs.inject({}) { |hash, (key, value)| hash.merge!(key => value) }
        read = preserving(hash_bytes(pairs)).extract_object
        assert_same_pairs expected, read, "#{size} #{kind} to #{of} and #{more.size}"
        assert_equal expected.merge("new" => 1), read.merge!("new" => 1), "#{size} #{kind} to #{of} and another"
      end
    end
  end

  # As a Hash of the program would store them. Recent ones are the same objects again, on every Ruby.
  def test_keys_are_those_that_a_hash_stores
    alike.reject { |text| text.bytesize > 128 }.flat_map { |text| [text, text.b] }.each do |text|
      bytes = hash_bytes([[text, 1]])
      own, other = Array.new(2) { { "".dup.force_encoding(text.encoding).concat(text) => 1 }.keys[0] }
      keys = Array.new(4) { buf_of(bytes).extract_object.keys[0] }
      assert_equal [own] * 4, keys
      assert_equal [own.encoding] * 4, keys.map(&:encoding)
      assert_equal [own.equal?(other)] * 4, keys.map { |key| key.equal?(own) }, text
      assert_same keys[2], keys[3], text
    end
  end

  def test_wide_hashes_inside_of_wide_hashes
    inner = keys_of_a_kind(:strings, 150).each_with_index.to_h
    outer = Array.new(40) { |i| ["outer #{i}", i.even? ? inner : [inner, {}, []]] }.to_h
    bytes = hash_bytes(outer)
    assert_equal outer, buf_of(bytes).extract_object
    small = { "inner" => inner.first(20).to_h }.merge(inner.first(20).to_h)
    bytes = hash_bytes(small)
    assert_equal small, CollectorLevel.under_stress { buf_of(bytes).extract_object }
  end

  def test_wide_hashes_are_moved_while_they_are_built
    skip "Ruby #{RUBY_VERSION} does not compact by itself" unless CollectorLevel.compacts_by_itself?
    pairs = Array.new(40) { |i| ["a key of some length, number #{i}", ["value #{i}"]] }
    bytes = hash_bytes(pairs)
    read = CollectorLevel.compacting_by_itself { CollectorLevel.under_stress { buf_of(bytes).extract_object } }
    assert_equal pairs, read.to_a
  end

  # --- what is not called --------------------------------------------------------------------------------

  # That no code of the program runs while Strings are hashed and compared, and Symbols are made, is what reading
  # without a second look at the bounds rests on.
  def test_nothing_is_called_for_strings
    out = run_ruby(<<-'RUBY', "-W0")
      # The position moves when the value has been built.
      $called = []
      def note(name)
        return unless $buf && $buf.pos == 0
        buf, $buf = $buf, nil
        $called << name unless $called.any? { |known| known.equal?(name) }
        $buf = buf
      end
      hook = Module.new do
        [:hash, :eql?, :==, :freeze, :-@, :to_sym].each do |name|
          define_method(name) do |*args|
            note(name)
            super(*args)
          end
        end
      end
      [String, Symbol].each { |klass| klass.prepend(hook) }
      sizes = [1, 2, 8, 9, 16, 17, 100, 129, 2000]
      kinds = [->(i) { "key #{i}" }, ->(i) { "\xff#{i}".b }, ->(i) { i.odd? ? "key #{i}" : "\xff#{i}".b },
               ->(i) { "another key #{i}" }]
      bufs = kinds.flat_map do |kind|
        sizes.map do |size|
          buf = PacketBuf.new
          buf.preserve_symbols_on_extract = true
          buf.write_raw("\x0a")
          (size < 10 ? 100 : 2).times do |n|
            keys = (0...size).map { |i| kind.call(n * size + i) }
            buf << keys.each_with_index.map { |key, i| [key, [1.5, "text", nil, :"value #{n} #{i}"]] }.to_h
          end
          buf.write_raw("\x0b").seek(0)
        end
      end
      finalizer = proc { note(:finalizer) }
      trace = TracePoint.new(:call, :c_call) do |point|
        note(point.method_id) unless point.method_id.equal?(:extract_object)
      end
      bufs.each do |buf|
        100.times { ObjectSpace.define_finalizer(Object.new, finalizer) }
        trace.enable
        $buf = buf
        buf.extract_object
        $buf = nil
        trace.disable
      end
      p $called
    RUBY
    assert_equal "[]\n", out
  end

  # Symbols are compared by their methods, if at all, and these can change the bytes.
  def test_symbols_as_keys
    out = run_ruby(<<-'RUBY', "-W0")
      $compared = 0
      hook = Module.new do
        def eql?(other)
          if $buf
            $compared += 1
            buf, $buf = $buf, nil
            buf.seek(buf.payload_size - 3).write_raw("\x07\x7fa\x09")
            buf.write_raw("m" * 3_000_000) if $compared.even?
          end
          super
        end
      end
      [String, Symbol].each { |klass| klass.prepend(hook) }
      wrong = 0
      2_000.times do |n|
        hash = (0...8).map { |i| [n.odd? && i.even? ? "#{n} #{i}" : "#{n} #{i}".to_sym, i] }.to_h
        buf = PacketBuf.new
        buf.preserve_symbols_on_extract = true
        buf << [hash, { "last" => "aa" }]
        $buf = buf.seek(0)
        begin
          value = buf.extract_object
          wrong += 1 unless value[0] == hash && ($buf || value[1] != { "last" => "aa" })
        rescue RuntimeError => error
          wrong += 1 unless error.message =~ /\Adecode_/
        end
        $buf = nil
      end
      puts wrong, $compared
    RUBY
    wrong, compared = out.split.map(&:to_i)
    assert_equal 0, wrong
    # Small Hashes compare eight bits of the hash first; where a hash has 32 bits, these never met.
    assert_operator compared, :>, 0 if RUBY_VERSION >= "2.7" && 0.size == 8
  end

  # --- Ractors -------------------------------------------------------------------------------------------

  def test_ractors_keep_symbols_of_their_own
    skip "no Ractor in Ruby #{RUBY_VERSION}" unless defined?(Ractor)
    out = run_ruby(<<-'RUBY', "-W:no-experimental")
      Ractor.class_eval { alias value take } unless Ractor.method_defined?(:value)
      ractors = Array.new(3) do
        Ractor.new do
          buf = PacketBuf.new
          buf.preserve_symbols_on_extract = true
          (0...3000).all? do |i|
            value = [:"symbol #{i % 200}", { :"key #{i % 7}" => :"symbol #{i % 300}" }]
            GC.start if i % 1000 == 999
            (buf.reset << value).seek(0).extract_object == value
          end
        end
      end
      ractors.each { |ractor| puts ractor.value }
    RUBY
    assert_equal "true\n" * 3, out
  end
end
