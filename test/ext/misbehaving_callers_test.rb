# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Ruby code that runs in the middle of reading and writing: an own `each`, `to_int` of an argument, `hash` of a key.
# Whatever it does ends in a Ruby exception or in the right result.
class MisbehavingCallersTest < ExtTest
  include RubyProcess

  NO_PAIR = "serialize_rbobj_to_packetbuf: hash entry is not a [key, value] pair"
  ENDED = "serialize_rbobj_to_packetbuf: hash iteration has ended"
  UNSUPPORTED = "serialize_rbobj_to_packetbuf: unsupported rb_type"
  MEGABYTES = ("m" * 3_000_000).freeze

  # A Hash whose `each` hands its block to a callable.
  class OwnEach < Hash
    def initialize(&body)
      super()
      @body = body
    end

    def each(&block)
      @body.call(block)
    end
  end

  # A number whose conversion does something first.
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

  # Array#hash that does something first, once.
  module HashHook
    class << self
      attr_accessor :body
    end

    def hash
      body = HashHook.body
      HashHook.body = nil
      body.call if body
      super
    end
  end
  Array.prepend(HashHook)

  def setup
    @buf = PacketBuf.new
  end

  def teardown
    HashHook.body = nil
  end

  def written
    to_hex(@buf.to_str)
  end

  # A Hash whose class defines `each` with this source.
  def hash_with_each(source)
    Class.new(Hash) { class_eval("def each\n#{source}\nend") }.new
  end

  # What a thread raises is expected here.
  def quietly
    Thread.current.report_on_exception = false if Thread.current.respond_to?(:report_on_exception=)
    yield
  end

  # The buffer serves as if nothing had happened.
  def assert_usable(buf = @buf)
    buf.maxdepth = 64
    start = buf.reset.pos
    deep = 62.times.inject(1) { |inner, _| [inner] }
    buf << { 1 => deep }
    assert_equal({ 1 => deep }, buf.seek(start).extract_object) unless buf.is_a?(PacketFrameIn)
  end

  # --- what an own `each` yields -------------------------------------------------------------------------

  YIELDS = {
    "" => "08 09", "yield [1, 2]" => "08 81 82 09", "yield 1, 2" => "08 81 82 09", "yield(*[1, 2])" => "08 81 82 09",
    "yield [1, 2]; yield 3, 4" => "08 81 82 83 84 09", "yield Class.new(Array).new([1, 2])" => "08 81 82 09",
    "yield [1, 2], 3" => "08 0a 81 82 0b 83 09", "yield [1, 2].freeze" => "08 81 82 09",
    "yield nil, nil" => "08 00 00 09", "yield [[1, 2], { 3 => 4 }]" => "08 0a 81 82 0b 08 83 84 09 09",
    "[[1, 2], [3, 4]].each { |pair| yield pair; break }" => "08 81 82 09",
    "[[1, 2], [3, 4]].each { |pair| yield pair; return }" => "08 81 82 09",
    "{ 1 => 2 }.each { |*pair| yield(*pair) }" => "08 81 82 09",
    "{ 1 => 2 }.each(&proc { |k, v| yield k, v })" => "08 81 82 09",
    "self[5] = 6; super" => "08 85 86 09", "self[5] = 6; super { |k, v| yield k, v + 1 }" => "08 85 87 09"
  }.freeze

  def test_entries_come_from_an_own_each
    YIELDS.each { |source, bytes| assert_equal bytes, encode(hash_with_each(source)), source }
  end

  NO_PAIRS = ["yield", "yield nil", "yield 1", "yield [1]", "yield [1, 2, 3]", "yield 1, 2, 3", "yield []", "yield [[1, 2]]",
              "yield({ 1 => 2 })", "yield 'ab'", "yield Struct.new(:a, :b).new(1, 2)"].freeze

  def test_what_is_no_pair_is_refused
    NO_PAIRS.each do |source|
      @buf.reset
      assert_raises_with(RuntimeError, NO_PAIR, source) { @buf << hash_with_each("yield 1, 2\n#{source}") }
      assert_equal "08 81 82", written
      assert_usable
    end
  end

  # --- where an own `each` comes from --------------------------------------------------------------------

  def test_each_of_a_singleton_and_of_a_prepended_module
    singleton = { 1 => 2 }
    def singleton.each; yield 5, 6; end
    extended = { 1 => 2 }.extend(Module.new { def each; yield 7, 8; end })
    prepended = Class.new(Hash) { prepend(Module.new { def each; yield 7, 8; end }) }[1, 2]
    assert_equal ["08 85 86 09", "08 87 88 09", "08 87 88 09"], [singleton, extended, prepended].map { |hash| encode(hash) }
  end

  def test_each_that_is_an_alias
    values = Class.new(Hash) { alias_method :each, :each_value }
    keys = Class.new(Hash) { alias_method :each, :each_key }
    pairs = Class.new(Hash) { alias_method :each, :each_pair }
    assert_equal "08 82 83 09", encode(values[1, [2, 3]])
    assert_equal "08 81 82 09", encode(pairs[1, 2])
    assert_raises_with(RuntimeError, NO_PAIR) { @buf << keys[1, 2] }
  end

  def test_each_that_is_private_or_gone
    hidden = Class.new(Hash) { private :each }
    undefined = Class.new(Hash) { undef_method :each }
    assert_equal "08 81 82 09", encode(hidden[1, 2])
    assert_raises(NoMethodError) { @buf << undefined[1, 2] }
    assert_equal "08", written
    assert_usable
  end

  def test_each_redefined_for_every_hash
    code = <<-RUBY
      class Hash
        alias_method :plain_each, :each
        remove_method :each
        def each; yield 7, 8; end
      end
      print (PacketBuf.new << { 1 => 2 }).to_str.unpack("H*")[0]
    RUBY
    assert_equal "08878809", run_ruby(code)
  end

  # --- how an own `each` ends ----------------------------------------------------------------------------

  def test_each_that_raises
    error = Class.new(StandardError)
    assert_raises(error) { @buf << [1, OwnEach.new { |block| block.call(1, 2); raise error }] }
    assert_equal "0a 81 08 81 82", written
    assert_usable
  end

  def test_each_that_throws
    hash = OwnEach.new { |block| block.call(1, OwnEach.new { throw :out, :thrown }) }
    assert_equal :thrown, catch(:out) { @buf << [hash] }
    assert_equal "0a 08 81 08", written
    assert_usable
  end

  def write_and_return
    [1].each { |_| @buf << OwnEach.new { |_block| return :returned } }
  end

  def test_each_that_leaves_the_method_which_writes
    assert_equal :returned, write_and_return
    assert_equal "08", written
    assert_usable
  end

  def test_each_that_rescues_what_writing_raises_and_goes_on
    hash = OwnEach.new do |block|
      300.times do
        assert_raises_with(RuntimeError, UNSUPPORTED) { block.call([], [[[Object.new]]]) }
        assert_raises(RuntimeError) { block.call([[1], 2, 3]) }
      end
      @buf.seek(2)
      block.call(3, 60.times.inject(4) { |inner, _| [inner] })
    end
    @buf << [hash]
    assert_equal "0a 08 83 #{'0a ' * 60}84#{' 0b' * 60} 09 0b", written
  end

  def test_each_that_never_ends_is_timed_out
    assert_raises(Timeout::Error) { Timeout.timeout(0.1) { @buf << OwnEach.new { |block| loop { @buf.reset; block.call(1, 2) } } } }
    assert_usable
  end

  def test_threads_end_inside_an_own_each
    inside = Queue.new
    sleeper = OwnEach.new { |_| inside << :there; sleep }
    [lambda { |thread| thread.kill }, lambda { |thread| thread.raise(IOError, "stop") }].each do |stop|
      thread = Thread.new { quietly { @buf << [sleeper] } }
      inside.pop
      stop.call(thread)
      begin
        assert_nil thread.value
      rescue IOError => error
        assert_equal "stop", error.message
      end
      assert_usable
    end
  end

  # --- the block given to an own `each` ------------------------------------------------------------------

  def test_block_called_when_its_iteration_has_ended
    kept = []
    @buf << OwnEach.new { |block| kept << block }
    assert_raises(IOError) { @buf << OwnEach.new { |block| kept << block; raise IOError } }
    catch(:out) { @buf << OwnEach.new { |block| kept << block; throw :out } }
    assert_equal "08 09 08 08", written
    kept.each do |block|
      2.times { assert_raises_with(RuntimeError, ENDED) { block.call(1, 2) } }
      assert_raises_with(RuntimeError, ENDED) { block.call }
      assert_raises_with(RuntimeError, ENDED) { Thread.new { quietly { block.call([1, 2]) } }.value }
      assert_raises_with(RuntimeError, ENDED) { Fiber.new { block.call([1, 2]) }.resume }
    end
    assert_equal "08 09 08 08", written
    @buf = nil
    GC.start
    kept.each { |block| assert_raises_with(RuntimeError, ENDED) { block.call(1, 2) } }
  end

  def test_block_called_from_elsewhere_meanwhile
    @buf << OwnEach.new { |block| Fiber.new { block.call(1, 2) }.resume }
    @buf << OwnEach.new { |block| Thread.new { block.call(3, 4) }.join }
    @buf << OwnEach.new { |block| Enumerator.new { |y| block.call(5, 6); y << 1 }.next }
    assert_equal "08 81 82 09 08 83 84 09 08 85 86 09", written
  end

  def test_block_called_by_the_writing_of_another_buffer
    other = PacketBuf.new
    @buf << OwnEach.new { |outer| other << OwnEach.new { |inner| outer.call(1, 2); inner.call(3, 4) } }
    assert_equal ["08 81 82 09", "08 83 84 09"], [written, to_hex(other.to_str)]
  end

  # The key's `each` lets the iteration end that it belongs to.
  def test_iteration_that_ends_while_a_key_is_written
    outer = nil
    fiber = Fiber.new { @buf << OwnEach.new { |block| outer = block; Fiber.yield } }
    fiber.resume
    key = OwnEach.new { fiber.resume }
    assert_raises_with(RuntimeError, ENDED) { outer.call(key, 1) }
    assert_usable
  end

  # Whether a class iterates with the built-in `each` is asked again after Ruby code has run.
  def test_each_that_is_redefined_on_the_way
    assert_equal "0a08818209080908848409" + "0b\n", run_ruby(<<-'RUBY')
      class Redefining < Hash
        def each
          Hash.class_eval do
            remove_method :each
            def each
              yield 4, 4
            end
          end
        end
      end
      puts PacketBuf.new.write_object([{ 1 => 2 }, Redefining.new, { 3 => 3 }]).to_str.unpack("H*")
    RUBY
  end

  # The machine stack of a fiber that nobody resumes is gone; the block is not.
  def test_block_that_outlives_its_fiber
    code = <<-RUBY
      class Suspended < Hash
        def each(&block)
          $blocks << block
          Fiber.yield
        end
      end
      $blocks = []
      100.times { Fiber.new { PacketBuf.new << [Suspended.new] }.resume }
      3.times { GC.start }
      50.times { Fiber.new { Array.new(100) { |i| [i] } }.resume }
      abort "buffers are gone" if ObjectSpace.each_object(PacketBuf).count < 100
      outcomes = $blocks.map do |block|
        begin
          block.call(1, "y" * 1000)
        rescue RuntimeError => error
          error.message
        end
      end
      puts outcomes.uniq.map(&:inspect)
    RUBY
    assert_includes ["nil", ENDED.inspect], run_ruby(code).chomp
  end

  # --- containers changed while they are written ---------------------------------------------------------

  def test_array_changed_while_it_is_written
    { ->(array) { array.clear } => "0a 08 09 00 00 0b", ->(array) { array.pop } => "0a 08 09 82 00 0b",
      ->(array) { array.concat([7] * 10_000) } => "0a 08 09 82 83 0b", ->(array) { array[1] = "x" } => "0a 08 09 07 01 78 83 0b",
      ->(array) { array.replace([5, 6, 7, 8]) } => "0a 08 09 86 87 0b", ->(array) { array.shift } => "0a 08 09 83 00 0b"
    }.each do |change, bytes|
      array = []
      array.push(OwnEach.new { change.call(array) }, 2, 3)
      assert_equal bytes, encode(array)
    end
  end

  def test_hash_changed_while_it_is_written
    { ->(hash) { hash.delete(2) } => "08 81 08 09 83 84 09", ->(hash) { hash.delete(1) } => "08 81 08 09 82 83 83 84 09",
      ->(hash) { hash.clear } => "08 81 08 09 09", ->(hash) { hash[2] = 9 } => "08 81 08 09 82 89 83 84 09"
    }.each do |change, bytes|
      hash = {}
      hash.update(1 => OwnEach.new { change.call(hash) }, 2 => 3, 3 => 4)
      assert_equal bytes, encode(hash)
    end
  end

  def test_keys_are_not_added_to_a_hash_while_it_is_written
    hash = {}
    hash[1] = OwnEach.new { hash[2] = 3 }
    raised = assert_raises(RuntimeError) { @buf << hash }
    assert_match(/can't add a new key into hash during iteration/, raised.message)
    hash[2] = 3
    assert_equal [1, 2], hash.keys, "the hash is no longer iterated"
    assert_usable
  end

  # --- the buffer used while it is written ---------------------------------------------------------------

  USES = {
    "write_raw" => [->(buf) { buf.write_raw("\x85\x86") }, "08 85 86 81 82 09"],
    "<<" => [->(buf) { buf << 5 << [6] }, "08 85 0a 86 0b 81 82 09"],
    "seek" => [->(buf) { buf.seek(3) }, "08 00 00 81 82 09"],
    "reset" => [->(buf) { buf.reset }, "81 82 09"],
    "to_str" => [->(buf) { buf.to_str << "more" }, "08 81 82 09"],
    "extract_object" => [->(buf) { buf.write_raw("\x85").seek(1).extract_object }, "08 85 81 82 09"],
    "copy_object" => [->(buf) { buf.write_raw("\x85").seek(1).copy_object(buf) }, "08 85 85 81 82 09"],
    "initialize" => [->(buf) { buf.send(:initialize) }, "08 81 82 09"]
  }.freeze

  def test_each_that_uses_the_buffer
    USES.each do |name, (use, bytes)|
      @buf = PacketBuf.new
      @buf << OwnEach.new { |block| use.call(@buf); block.call(1, 2) }
      assert_equal bytes, written, name
    end
  end

  def test_each_that_grows_the_buffer
    @buf << [0, OwnEach.new { |block| @buf.write_raw(MEGABYTES); block.call(MEGABYTES, 1) }, 2]
    bytes = hex("0a 80 08") + MEGABYTES + hex("07 c0 8d b7 01") + MEGABYTES + hex("81 09 82 0b")
    assert @buf.to_str == bytes, "bytes around those of a growing buffer"
  end

  def test_each_that_uses_the_frame
    frame = PacketFrameOut.new.reset
    frame << OwnEach.new { |block| frame.use_12byte_header = true; block.call(1, 2) }
    assert_equal "a5 00 00 00 00 00 03 de ad be ef 5a 81 82 09", to_hex(frame.compute_frame_header.to_str)
    frame.reset << OwnEach.new { |block| frame.compute_frame_header; block.call(1, 2) }
    assert_equal 16, frame.pos
    inbound = PacketFrameIn.new.reset
    inbound << OwnEach.new { |block| inbound.reset; inbound.assemble(hex("a5 01 00 00 00 00 00 01 81"), 0); block.call(1, 2) }
    assert_predicate inbound, :have_complete_frame?
  end

  # --- to_int of arguments -------------------------------------------------------------------------------

  FRAME = [0xA5, 1, 0, 7, 0, 0, 0, 2, 0x41, 0x42].pack("C*")

  def test_offset_that_changes_the_chunk
    out_of_range = "packetframein_assemble: offset argument out of range"
    frame = PacketFrameIn.new.reset
    [->(chunk) { chunk.clear }, ->(chunk) { chunk.replace("abc") }, ->(chunk) { chunk.slice!(4..-1) }].each do |change|
      chunk = FRAME * 1000
      assert_raises_with(ArgumentError, out_of_range) { frame.assemble(chunk, OwnInteger.new(4) { change.call(chunk) }) }
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
      "pos=" => ->(n) { @buf.pos = n }, "seek" => ->(n) { @buf.seek(n) }, "next_seq=" => ->(n) { frame_out.next_seq = n },
      "index_within_payload?" => ->(n) { @buf.index_within_payload?(n) }, "assemble" => ->(n) { frame_in.assemble(FRAME, n) },
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
    buf = buf_of(hex("0a 81 82 0b 83"))
    buf.maxdepth = OwnInteger.new(64) { buf.seek(4) }
    assert_equal 3, buf.extract_object, "the position counts after the conversion"
    buf.maxdepth = OwnInteger.new(64) { buf.seek(5).write_raw(MEGABYTES).seek(0) }
    assert_equal [1, 2], buf.extract_object
    buf.maxdepth = OwnInteger.new(64) { buf.maxdepth = 64; buf.seek(0).extract_object }
    assert_equal 3, buf.extract_object
    to = PacketBuf.new
    buf.maxdepth = OwnInteger.new(64) { buf.seek(4); to.write_raw(MEGABYTES).seek(2) }
    buf.copy_object(to)
    assert_equal [5, 3, "mm\x83"], [buf.pos, to.pos, to.to_str.force_encoding("UTF-8")]
  end

  # --- hash of a key -------------------------------------------------------------------------------------

  # Reads { [1] => 2, [3] => [4, "five"] } while the first key's hash does something.
  def read_while
    buf = buf_of(hex("08 0a 81 0b 82 0a 83 0b 0a 84 07 04 66 69 76 65 0b 09"))
    HashHook.body = -> { yield buf }
    buf.extract_object
  ensure
    HashHook.body = nil
  end

  HARMLESS = {
    "seek" => ->(buf) { buf.seek(1_000_000) },
    "reset" => ->(buf) { buf.reset },
    "growth" => ->(buf) { buf.seek(19).write_raw(MEGABYTES) },
    "growth again and again" => ->(buf) { 5.times { |n| buf.seek(19 + n * 3_000_000).write_raw(MEGABYTES) } },
    "the same bytes once more" => ->(buf) { buf.seek(0).write_raw(buf.seek(18).to_str) },
    "a collection" => ->(_) { GC.start },
    "reading the same value" => ->(buf) { buf.seek(0).extract_object },
    "copying the same value" => ->(buf) { buf.seek(0).copy_object(buf) },
    "limits" => ->(buf) { buf.maxdepth = 0 }
  }.freeze

  def test_keys_that_use_the_buffer
    HARMLESS.each do |name, use|
      called = false
      result = read_while { |buf| called = true; use.call(buf) }
      assert_equal({ [1] => 2, [3] => [4, "five"] }, result, name)
      assert called, name
    end
  end

  # What is read then is what the buffer holds by then.
  def test_keys_that_overwrite_the_buffer
    ["\x09", "\x0b", "\xff", "\x0a", "\x07\xff\xff\xff\xff\x0f", "\x04"].each do |bytes|
      (1..18).each do |index|
        outcome = begin
          read_while { |buf| buf.seek(index).write_raw(bytes * 10) }
        rescue RuntimeError => error
          assert_match(/\Adecode_/, error.message)
          next
        end
        assert_kind_of Hash, outcome
      end
    end
  end

  # Storage that moves under a reader, and changes where it is now: behind the Hash of the key, in its outer containers.
  def test_keys_that_move_the_buffer_and_change_it
    { "0a 08 0a 81 0b 82 09 87 0b" => [[{ [1] => 2 }, 9], 7], "0a 08 0a 81 0b 82 09 07 01 61 0b" => [[{ [1] => 2 }, "!"], 9],
      "08 88 08 0a 81 0b 82 09 87 81 09" => [{ 8 => { [1] => 2 }, 9 => 1 }, 8] }.each do |text, (expected, index)|
      buf = buf_of(hex(text))
      HashHook.body = lambda do
        buf.seek(100).write_raw(MEGABYTES)
        buf.seek(index).write_raw(expected.to_s.include?("!") ? "!" : hex("89"))
      end
      assert_equal expected, buf.extract_object, text
    end
  ensure
    HashHook.body = nil
  end

  # An Array that was counted with one member, a String, and has 99 when it is built: the String's bytes are nils by
  # then. And one that was counted with 99 and has one.
  def test_keys_that_change_how_many_members_follow
    few = hex("0a 08 0a 81 0b 82 09 0a 07 61") + "x" * 97 + hex("0b 0b")
    many = hex("0a 08 0a 81 0b 82 09 0a") + "\0" * 99 + hex("0b 0b")
    [[few, many, [{ [1] => 2 }, [nil] * 99]], [many, few, [{ [1] => 2 }, ["x" * 97]]]].each do |before, after, expected|
      buf = buf_of(before)
      HashHook.body = -> { buf.seek(8).write_raw(after.byteslice(8..-1)) }
      assert_equal expected, buf.extract_object
    end
  ensure
    HashHook.body = nil
  end

  # Lengths and depths are checked again where bytes have become others since the first check.
  def test_keys_that_overwrite_up_to_the_bounds
    { "0a 08 0a 81 0b 82 09 07 01 61 0b" => [8, "03", "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes"],
      "08 81 08 0a 81 0b 82 09 83 07 06 61 61 61 61 61 61 09" =>
        [9, "0a 0a 0a 0a 0b 0b 0b 0b", "decode_next_packetbuf_rbobj: maxdepth exceeded"] }.each do |text, (index, bytes, error)|
      buf = buf_of(hex(text))
      buf.maxdepth = 4
      HashHook.body = -> { buf.seek(index).write_raw(hex(bytes)) }
      assert_raises_with(RuntimeError, error) { buf.extract_object }
    end
  ensure
    HashHook.body = nil
  end

  def test_keys_that_leave
    error = Class.new(StandardError)
    assert_raises(error) { read_while { raise error } }
    assert_equal :thrown, catch(:out) { read_while { throw :out, :thrown } }
    assert_raises(Timeout::Error) { Timeout.timeout(0.05) { read_while { sleep } } }
    assert_nil Thread.new { read_while { Thread.current.kill } }.value
    buf = nil
    assert_raises(error) { read_while { |b| buf = b; raise error } }
    assert_usable buf
  end

  def test_keys_that_read_the_frame_anew
    value = hex("08 0a 81 0b 82 09")
    bytes = [0xA5, 1, 7, value.size].pack("CCnN") + value
    frame = PacketFrameIn.new.reset
    assert_equal bytes.size, frame.assemble(bytes, 0)
    HashHook.body = -> { frame.reset; frame.assemble(bytes, 0) }
    assert_equal({ [1] => 2 }, frame.seek_payload_start.extract_object)
    assert_equal bytes.size, frame.pos
  end

  # --- objects in unusual states -------------------------------------------------------------------------

  def test_objects_that_were_never_initialized
    code = <<-RUBY
      [PacketBuf, PacketFrameIn, PacketFrameOut].each do |klass|
        buf = klass.allocate
        p [buf.maxdepth, buf.preserve_symbols_on_extract, buf.pos, buf.payload_size, buf.to_str]
        buf.seek(0).write_raw("abc") << [1]
        [:extract_object, :copy_object].each do |name|
          begin
            buf.reset.send(name, *(name == :copy_object ? [PacketBuf.allocate] : []))
          rescue TypeError => error
            puts error.message
          end
        end
      end
      puts (PacketFrameOut.allocate.reset << 1).compute_frame_header.to_str.unpack("H*")
      p PacketFrameIn.allocate.reset.assemble("\\xA5\\x01\\0\\0\\0\\0\\0\\0", 0)
    RUBY
    one = "[nil, nil, 0, 0, \"\"]\n" + "no implicit conversion from nil to integer\n" * 2
    assert_equal one * 3 + "a50100000000000181\n8\n", run_ruby(code)
  end

  def test_frozen_buffers
    buf = buf_of("\x81").freeze
    frozen = defined?(FrozenError) ? FrozenError : RuntimeError
    assert_raises(frozen) { buf.maxdepth = 1 }
    assert_raises(frozen) { buf.preserve_symbols_on_extract = true }
    assert_equal 1, buf.extract_object
    assert_equal "81 82", to_hex((buf << 2).to_str), "freezing holds the options, not the bytes"
  end

  def test_buffers_are_equal_to_themselves_only
    refute_equal PacketBuf.new, PacketBuf.new
    assert_equal 1, { @buf => 1 }[@buf]
    refute_respond_to @buf, :<=>, "no order" unless Object.method_defined?(:<=>)
  end

  def test_objects_work_without_the_names_of_their_classes
    code = <<-RUBY
      buf, frame = PacketBuf, PacketFrameOut
      [:PacketBuf, :PacketFrame, :PacketFrameIn, :PacketFrameOut].each { |name| VORN::PROTO.send(:remove_const, name) }
      Object.send(:remove_const, :VORN)
      buf, frame = buf.new, frame.new
      buf << [1]
      3.times { GC.start }
      buf.seek(0).copy_object(frame)
      begin
        buf.copy_object(1)
      rescue RuntimeError => error
        puts error.message
      end
      puts frame.to_str.unpack("H*")
    RUBY
    assert_equal "packetbuf_copy_object: destination buffer must be PacketBuf or PacketFrameOut\n0a810b\n", run_ruby(code)
  end

  # --- depth ---------------------------------------------------------------------------------------------

  # Arrays, hashes by their values, hashes by their keys, and a deep array as key.
  DEEP = <<-RUBY
    n = 100_000
    deep = ["\\x0a" * n + "\\x0b" * n, "\\x08\\x80" * n + "\\x80" + "\\x09" * n]
    n = 30_000
    deep += ["\\x08" + "\\x0a" * n + "\\x0b" * n + "\\x80\\x09", "\\x08" * n + "\\x80" + "\\x80\\x09" * n] if KEYS
    read = lambda do |bytes|
      begin
        buf = PacketBuf.new.write_raw(bytes).seek(0)
        buf.maxdepth = 2**31 - 1
        buf.extract_object.class
      rescue SystemStackError => error
        error.class
      end
    end
    outcomes = deep.map { |bytes| WHERE.call(read, bytes) }
    puts outcomes.all? { |outcome| [Array, Hash, SystemStackError].include?(outcome) }
    p PacketBuf.new.write_raw("\\x0a\\x0b").seek(0).extract_object
  RUBY

  WHERE = {
    main: "->(read, bytes) { read.call(bytes) }",
    thread: "->(read, bytes) { Thread.new { read.call(bytes) }.value }",
    fiber: "->(read, bytes) { Fiber.new { read.call(bytes) }.resume }"
  }.freeze

  WHERE.each do |name, where|
    define_method("test_values_that_exhaust_the_stack_in_#{name}") do
      # Ruby 2.2 itself may crash or hang in the hash of an array that is too deep.
      keys = RUBY_VERSION >= "2.3"
      assert_equal "true\n[]\n", run_ruby("KEYS = #{keys}\nWHERE = #{where}\n#{DEEP}")
    end
  end

  # A main thread's stack of 8 MB has room for them.
  def test_depth_is_bounded_whatever_the_limit_says
    skip_under_sanitizers # their stack frames are larger
    assert_equal "10000\nstack level too deep\n", run_ruby(<<-'RUBY')
      [10_000, 10_001].each do |n|
        buf = PacketBuf.new.write_raw("\x0a" * n + "\x0b" * n).seek(0)
        buf.maxdepth = 2**31 - 1
        begin
          value = buf.extract_object
          levels = 1
          levels += 1 while (value = value[0])
          puts levels
        rescue SystemStackError => error
          puts error.message
        end
      end
    RUBY
  end

  def test_default_depth_fits_into_a_small_stack
    code = <<-RUBY
      deep = 63.times.inject(1) { |inner, n| n.odd? ? [inner] : { n => inner } }
      there_and_back = -> { (PacketBuf.new << deep).seek(0).extract_object == deep }
      p Thread.new(&there_and_back).value, Fiber.new(&there_and_back).resume
    RUBY
    small = { "RUBY_THREAD_MACHINE_STACK_SIZE" => "65536", "RUBY_FIBER_MACHINE_STACK_SIZE" => "65536" }
    with_env(small) { assert_equal "true\ntrue\n", run_ruby(code) }
  end

  def with_env(variables)
    before = variables.keys.map { |name| [name, ENV[name]] }
    ENV.update(variables)
    yield
  ensure
    before.each { |name, value| ENV[name] = value }
  end

  def test_own_each_at_every_level
    hash = 63.times.inject(1) { |inner, _| OwnEach.new { |block| block.call(2, inner) } }
    assert_equal "08 82 " * 63 + "81" + " 09" * 63, encode(hash)
    too_deep = OwnEach.new { |block| block.call(2, hash) }
    assert_raises_with(RuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded") { @buf << too_deep }
    itself = OwnEach.new { |block| block.call(1, itself) }
    assert_raises_with(RuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded") { @buf << itself }
    assert_usable
  end

  def test_own_each_that_writes_itself_forever
    skip "Ruby #{RUBY_VERSION} raises out of its signal handler, and may hang" if RUBY_VERSION < "2.3"
    hash = OwnEach.new { @buf << hash }
    assert_raises(SystemStackError) { @buf << hash }
    assert_usable
  end
end
