# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"
require_relative "../support/model"

# Collections and compactions in the middle of encoding, decoding and callbacks.
class GcTest < ExtTest
  include RubyProcess

  VALUE = [
    nil, true, 2**62, -2**63, 1.5, 1e300, "text", "bytes".b, :symbol, [[], ["nested", [2**63 - 1]]],
    { "key" => { 1 => "value" }, [1, "a"] => { { 2 => 3 } => 1e-300 }, 5 => ("m".."p").to_a }, ["x" * 100] * 5
  ].freeze

  class OwnEach < Hash
    def each
      super { |key, value| yield [key.dup, value.dup] }
    end
  end

  def stressed(&block)
    CollectorLevel.under_stress(&block)
  end

  def can_compact?
    GC.respond_to?(:compact) && GC.compact && true
  rescue NotImplementedError
    false
  end

  def signature(value)
    Model.signature(value)
  end

  def test_values_under_stress
    encoded = PacketBuf.new.write_object(VALUE).to_str
    read = stressed do
      buf = PacketBuf.new << VALUE
      buf.preserve_symbols_on_extract = true
      [buf.to_str, buf.seek(0).extract_object, PacketBuf.new.write_object(VALUE).to_str]
    end
    assert_equal signature([encoded, VALUE, encoded]), signature(read)
  end

  def test_own_each_under_stress
    hash = OwnEach["key", ["a"], "other", OwnEach["b", "c"]]
    plain = { "key" => ["a"], "other" => { "b" => "c" } }
    assert_equal encode(plain), Hex.encode(stressed { PacketBuf.new.write_object(hash).to_str })
  end

  def test_dynamic_symbols_under_stress
    read = stressed do
      buf = PacketBuf.new << (0...10).map { |n| "dynamic #{n}".to_sym }
      buf.preserve_symbols_on_extract = true
      buf.seek(0).extract_object
    end
    assert_equal (0...10).map { |n| :"dynamic #{n}" }, read
  end

  # The key cache holds keys beyond their message: they must survive every kind of collection.
  def test_keys_from_message_to_message
    between = [-> {}, -> { GC.start }, -> { GC.start(full_mark: false) }]
    between << -> { GC.compact } if can_compact?
    messages = (0...400).map { |i| { "key" => 1, "key #{i}" => 2, "long key " * (i % 20) => i } }
    encoded = messages.map { |message| PacketBuf.new.write_object(message).to_str }
    2.times do
      encoded.each_with_index do |bytes, i|
        buf = PacketBuf.new.write_raw(bytes).seek(0)
        between[i % between.size].call if i % 10 < between.size
        assert_equal messages[i], buf.extract_object
      end
    end
    hashes = stressed { encoded[0, 20].map { |bytes| PacketBuf.new.write_raw(bytes).seek(0).extract_object } }
    assert_equal messages[0, 20], hashes
  end

  # Each slot of the key cache must keep its key alive: the next message gets the same object. The first byte of these
  # keys selects each slot in turn.
  def test_every_slot_of_the_key_cache
    skip "Ruby #{RUBY_VERSION} has no key cache" if RUBY_VERSION < "3.0"
    out = run_ruby(<<-'RUBY')
      BUF = PacketBuf.new
      def ids(second)
        (0...128).map do |first|
          BUF.seek(0).write_raw("\x08\x07\x02#{first.chr}#{second}\x00\x09").seek(0).extract_object.keys.first.object_id
        end
      end
      [-> { GC.start }, -> { GC.compact if GC.respond_to?(:compact) }].each do |collect|
        %w[% & $].each do |second|
          before = ids(second)
          2.times { collect.call }
          after = ids(second)
          before.zip(after).each_with_index { |(was, is), first| abort "lost slot #{first}" unless was == is }
          abort "several keys in one slot" unless after.uniq.size == 128
        end
      end
      puts :held
    RUBY
    assert_equal "held\n", out
  end

  def test_copying_under_stress
    from = PacketBuf.new << VALUE
    copies = stressed do
      to = PacketBuf.new
      from.seek(0).copy_object(to)
      from.seek(0).copy_object(PacketFrameOut.new)
      [to.to_str, from.seek(from.payload_size).to_str]
    end
    assert_equal copies[1], copies[0]
  end

  def test_frames_under_stress
    [false, true].each do |twelve|
      read = stressed do
        out = PacketFrameOut.new
        out.use_12byte_header = twelve
        bytes = (out << ["text", { 1 => 2**62 }] << 2).compute_frame_header.to_str
        frame = PacketFrameIn.new.reset
        offset = 0
        offset += frame.assemble(bytes[0, offset + 7], offset) until frame.have_complete_frame?
        frame.seek_payload_start
        [frame.extract_object, frame.extract_object, offset == bytes.size]
      end
      assert_equal [["text", { 1 => 2**62 }], 2, true], read
    end
  end

  # A collection that native memory has triggered runs finalizers. These can use native memory too, which has to trigger
  # collections as well, or it would pile up until all finalizers are done.
  def test_storage_is_collected_while_a_finalizer_runs
    skip_without_proc
    skip_under_sanitizers
    rounds, peak = run_ruby(STATUS + <<-'RUBY').split.map { |number| Integer(number) }
      before = status("VmRSS")
      MEGABYTE = "x" * 1_048_576
      $rounds = 0
      def churn(megabytes)
        megabytes.times { PacketBuf.new.write_raw(MEGABYTE) }
      end
      def churning
        proc { churn(500) if ($rounds += 1) < 3 }
      end
      10.times { ObjectSpace.define_finalizer(Object.new, churning) }
      churn(500)
      puts $rounds, (status("VmHWM") - before) / 1_048_576
    RUBY
    assert_operator rounds, :>, 0
    assert_operator peak, :<, 300, "MB"
  end

  FAILURES = {
    "an unsupported value" => -> { PacketBuf.new << ["a", { "b" => Object.new }] },
    "a large integer" => -> { PacketBuf.new << ["a", 2**64] },
    "an own each" => -> { PacketBuf.new << OwnEach["a", OwnEach["b", Object.new]] },
    "a cut value" => -> { PacketBuf.new.write_raw("\x0a\x07\x01a\x07").seek(0).extract_object },
    "a broken symbol" => lambda do
      buf = PacketBuf.new.write_raw("\x0a\x07\x01a\x06\x01\xff\x0b").seek(0)
      buf.preserve_symbols_on_extract = true
      buf.extract_object
    end,
    "a frame without room" => -> { PacketFrameOut.new.compute_frame_header },
    "a destination" => -> { PacketBuf.new.copy_object("x") },
    "an offset" => -> { PacketFrameIn.new.reset.assemble("abc", 3) }
  }.freeze

  def test_failures_under_stress
    FAILURES.each do |name, failing|
      calm = assert_raises(RuntimeError, RangeError, EncodingError, ArgumentError, name) { failing.call }
      wild = assert_raises(RuntimeError, RangeError, EncodingError, ArgumentError, name) { stressed { failing.call } }
      assert_equal [calm.class, calm.message], [wild.class, wild.message], name
    end
  end

  def test_objects_are_moved
    skip "Ruby #{RUBY_VERSION} does not compact" unless can_compact?
    bufs = (0...200).map { |n| PacketBuf.new << { n => VALUE } }
    frame = PacketFrameIn.new.reset
    bytes = (PacketFrameOut.new.reset << VALUE).compute_frame_header.to_str
    frame.assemble(bytes[0, 50], 0)
    GC.respond_to?(:verify_compaction_references) ? GC.verify_compaction_references(toward: :empty) : GC.compact
    bufs.each_with_index { |buf, n| assert_equal n, buf.seek(0).extract_object.keys.first }
    assert_equal bytes.size - 50, frame.assemble(bytes, 50)
    assert_equal VALUE.size, frame.seek_payload_start.extract_object.size
  end

  def test_objects_are_moved_while_they_are_written_and_read
    skip "Ruby #{RUBY_VERSION} does not compact" unless can_compact?
    moving = Class.new(Hash) do
      def each
        super do |key, value|
          GC.compact
          yield key, value
          GC.compact
        end
      end
    end
    value = (0...10).map { |n| { "key #{n}" => ["value #{n}"] } }
    written = PacketBuf.new << value.map { |hash| moving[hash] }
    assert_equal value, written.seek(0).extract_object
  end

  def test_objects_are_moved_at_every_allocation
    skip "Ruby #{RUBY_VERSION} does not compact by itself" unless CollectorLevel.compacts_by_itself?
    small = [{ "a" => [1.5e300, :b, "c"], "d" => { [1] => 2**62 } }] * 3
    read = CollectorLevel.compacting_by_itself { stressed { (PacketBuf.new << small).seek(0).extract_object } }
    assert_equal signature(AS_READ.call(small)), signature(read)
  end

  # Symbols are read as Strings by default.
  AS_READ = lambda do |value|
    case value
    when Array then value.map(&AS_READ)
    when Hash then Hash[value.map { |key, member| [AS_READ.call(key), AS_READ.call(member)] }]
    when Symbol then value.to_s.encode("UTF-8")
    else value
    end
  end
end
