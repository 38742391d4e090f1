# frozen_string_literal: true

require_relative "helper"
require_relative "own_each"
require_relative "ruby_process"

# An overridden `each` of a Hash is Ruby code that runs in the middle of encoding: it can change the buffer and the
# containers that are being written. Encoding raises a Ruby exception or writes the right bytes.
class OverriddenEachTest < ExtTest
  include RubyProcess

  NO_PAIR = "serialize_rbobj_to_packetbuf: hash entry is not a [key, value] pair"
  ENDED = "serialize_rbobj_to_packetbuf: hash iteration has ended"
  UNSUPPORTED = "serialize_rbobj_to_packetbuf: unsupported rb_type"

  def setup
    @buf = PacketBuf.new
  end

  def written
    Hex.encode(@buf.to_str)
  end

  def hash_with_each(source)
    Class.new(Hash) { class_eval("def each\n#{source}\nend") }.new
  end

  # The test expects the thread's exception, which must not be reported.
  def quietly
    Thread.current.report_on_exception = false if Thread.current.respond_to?(:report_on_exception=)
    yield
  end

  # --- what an overridden `each` yields ------------------------------------------------------------------

  YIELDS = {
    "" => "08 09", "yield [1, 2]" => "08 81 82 09", "yield 1, 2" => "08 81 82 09", "yield(*[1, 2])" => "08 81 82 09",
    "yield [1, 2]; yield 3, 4" => "08 81 82 83 84 09", "yield Class.new(Array).new([1, 2])" => "08 81 82 09",
    "yield [1, 2], 3" => "08 0a 81 82 0b 83 09", "yield [1, 2].freeze" => "08 81 82 09",
    "yield [1, 2, 3]" => "08 81 82 09", "yield [1]" => "08 81 00 09", "yield []" => "08 00 00 09",
    "yield [[1, 2]]" => "08 0a 81 82 0b 00 09", "yield [nil, 2, [3]]; yield [4]" => "08 00 82 84 00 09",
    "yield [1, 2] + [Object.new] * 1000" => "08 81 82 09", "yield nil, nil" => "08 00 00 09",
    "yield [[1, 2], { 3 => 4 }]" => "08 0a 81 82 0b 08 83 84 09 09",
    "[[1, 2], [3, 4]].each { |pair| yield pair; break }" => "08 81 82 09",
    "[[1, 2], [3, 4]].each { |pair| yield pair; return }" => "08 81 82 09",
    "{ 1 => 2 }.each { |*pair| yield(*pair) }" => "08 81 82 09",
    "{ 1 => 2 }.each(&proc { |k, v| yield k, v })" => "08 81 82 09",
    "self[5] = 6; super" => "08 85 86 09", "self[5] = 6; super { |k, v| yield k, v + 1 }" => "08 85 87 09"
  }.freeze

  def test_entries_come_from_an_overridden_each
    YIELDS.each { |source, bytes| assert_equal bytes, encode(hash_with_each(source)), source }
  end

  # Three yielded values are not a pair, even if the first is an Array of two.
  NO_PAIRS = ["yield", "yield nil", "yield 1", "yield 1, 2, 3", "yield [1, 2], 3, 4", "yield({ 1 => 2 })", "yield 'ab'",
              "yield Struct.new(:a, :b).new(1, 2)"].freeze

  def test_what_is_no_pair_is_refused
    NO_PAIRS.each do |source|
      @buf.reset
      assert_raises_with(RuntimeError, NO_PAIR, source) { @buf << hash_with_each("yield 1, 2\n#{source}") }
      assert_equal "08 81 82", written
      assert_usable @buf
    end
  end

  # --- where an overridden `each` comes from -------------------------------------------------------------

  def test_each_of_a_singleton_and_of_a_prepended_module
    singleton = { 1 => 2 }
    def singleton.each; yield 5, 6; end
    extended = { 1 => 2 }.extend(Module.new { def each; yield 7, 8; end })
    prepended = Class.new(Hash) { prepend(Module.new { def each; yield 7, 8; end }) }[1, 2]
    assert_equal ["08 85 86 09", "08 87 88 09", "08 87 88 09"],
                 [singleton, extended, prepended].map { |hash| encode(hash) }
  end

  def test_each_that_is_an_alias
    values = Class.new(Hash) { alias_method :each, :each_value }
    keys = Class.new(Hash) { alias_method :each, :each_key }
    pairs = Class.new(Hash) { alias_method :each, :each_pair }
    assert_equal "08 82 83 09", encode(values[1, [2, 3]])
    assert_equal "08 81 82 09", encode(pairs[1, 2])
    assert_equal "08 83 00 09", encode(keys[[3], 2])
    assert_raises_with(RuntimeError, NO_PAIR) { @buf << keys[1, 2] }
  end

  # Any iterating method of Hash can become its `each` by an alias. The encoding of { [1] => [2] } shows which one was
  # called. nil: the method calls `each` itself and recurses for ever.
  ALIASES = {
    "class Hash; alias_method :each, :each_key; end" => "08810009",
    "class Hash; alias each each_value; end" => "08820009",
    "class Hash; alias_method :each, :each_pair; end" => "080a810b0a820b09",
    "class Hash; alias old each; alias each each_key; alias each old; end" => "080a810b0a820b09",
    "Hash.prepend(Module.new { include Enumerable; alias_method :each, :each_entry })" => nil,
    "Walking = Module.new { include Enumerable }; Hash.prepend(Walking); " \
      "Walking.class_eval { alias each reverse_each }" => nil,
    "class << HASH; alias_method :each, :each_key; end" => "08810009",
    "HASH.extend(Module.new { def each; each_value { |v| yield v }; end })" => "08820009"
  }.freeze

  # The alias is made before the first value is written, and after one.
  def test_each_of_every_hash_that_is_an_alias
    ALIASES.each do |change, bytes|
      ["", "PacketBuf.new << HASH << { 1 => 2 }"].each do |before|
        code = "HASH = { [1] => [2] }\n#{before}\n$VERBOSE = false\n#{change}\n" + <<-'RUBY'
          begin
            puts (PacketBuf.new << HASH).to_str.unpack("H*")
            puts (PacketBuf.new << HASH).to_str.unpack("H*")
          rescue SystemStackError # each_entry calls each
            puts "calls itself"
          end
        RUBY
        assert_equal "#{bytes || 'calls itself'}\n" * (bytes ? 2 : 1), run_ruby(code), "#{before} #{change}"
      end
    end
  end

  # An alias may come and go between two values.
  def test_each_that_is_an_alias_for_a_while
    assert_equal "08810009 080a810b0a820b09 08820009 080a810b0a820b09\n" * 30, run_ruby(<<-'RUBY')
      class Hash
        alias_method :old_each, :each
      end
      buf = PacketBuf.new
      30.times do
        puts [:each_key, :old_each, :each_value, :old_each].map { |name|
          Hash.class_eval { alias_method :each, name }
          GC.start
          (buf.reset << { [1] => [2] }).to_str.unpack("H*")[0]
        }.join(" ")
      end
    RUBY
  end

  # A refinement applies only where it is activated, so never to the extension's calls.
  def test_each_that_is_refined
    assert_equal "08818209\n" * 4 + "08878809\n", run_ruby(<<-'RUBY')
      PLAIN = { 1 => 2 }
      Own = Class.new(Hash) { def each; yield 7, 8; end }
      OWN = Own[1, 2]
      write = ->(value) { puts (PacketBuf.new << value).to_str.unpack("H*") }
      write.call(PLAIN)
      module Refined
        refine(Hash) { def each; yield 3, 4; end }
        refine(Own) { def each; yield 5, 6; end }
      end
      write.call(PLAIN)
      using Refined
      PLAIN.each { |k, v| abort "not refined" unless [k, v] == [3, 4] }
      write.call(PLAIN)
      write.call(Class.new(Hash)[1, 2])
      write.call(OWN)
    RUBY
  end

  def test_each_that_is_private_or_gone
    hidden = Class.new(Hash) { private :each }
    undefined = Class.new(Hash) { undef_method :each }
    assert_equal "08 81 82 09", encode(hidden[1, 2])
    assert_raises(NoMethodError) { @buf << undefined[1, 2] }
    assert_equal "08", written
    assert_usable @buf
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

  # --- how an overridden `each` ends ---------------------------------------------------------------------

  def test_each_that_raises
    error = Class.new(StandardError)
    assert_raises(error) { @buf << [1, OwnEach.new { |block| block.call(1, 2); raise error }] }
    assert_equal "0a 81 08 81 82", written
    assert_usable @buf
  end

  def test_each_that_throws
    hash = OwnEach.new { |block| block.call(1, OwnEach.new { throw :out, :thrown }) }
    assert_equal :thrown, catch(:out) { @buf << [hash] }
    assert_equal "0a 08 81 08", written
    assert_usable @buf
  end

  def write_and_return
    [1].each { |_| @buf << OwnEach.new { |_block| return :returned } }
  end

  def test_each_that_leaves_the_method_which_writes
    assert_equal :returned, write_and_return
    assert_equal "08", written
    assert_usable @buf
  end

  def test_each_that_rescues_what_writing_raises_and_goes_on
    hash = OwnEach.new do |block|
      300.times do
        assert_raises_with(RuntimeError, UNSUPPORTED) { block.call([], [[[Object.new]]]) }
        assert_raises_with(RuntimeError, NO_PAIR) { block.call([1], 2, 3) }
      end
      @buf.seek(2)
      block.call(3, 60.times.inject(4) { |inner, _| [inner] })
    end
    @buf << [hash]
    assert_equal "0a 08 83 #{'0a ' * 60}84#{' 0b' * 60} 09 0b", written
  end

  def test_each_that_never_ends_is_timed_out
    endless = OwnEach.new { |block| loop { @buf.reset; block.call(1, 2) } }
    assert_raises(Timeout::Error) { Timeout.timeout(0.1) { @buf << endless } }
    assert_usable @buf
  end

  def test_threads_end_inside_an_overridden_each
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
      assert_usable @buf
    end
  end

  # --- the block given to an overridden `each` -----------------------------------------------------------

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
    assert_equal ["08 81 82 09", "08 83 84 09"], [written, Hex.encode(other.to_str)]
  end

  # While the block writes a key, the key's own `each` ends the iteration that the block belongs to.
  def test_iteration_that_ends_while_a_key_is_written
    outer = nil
    fiber = Fiber.new { @buf << OwnEach.new { |block| outer = block; Fiber.yield } }
    fiber.resume
    key = OwnEach.new { fiber.resume }
    assert_raises_with(RuntimeError, ENDED) { outer.call(key, 1) }
    assert_usable @buf
  end

  # Whether a class has the built-in `each` must be checked again after Ruby code has run.
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

  # The machine stack of an abandoned fiber is freed; the block that was created on it lives on.
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
      abort "buffers were collected" if ObjectSpace.each_object(PacketBuf).count < 100
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

  # If a block's self is another object, only the extension's hidden object keeps the buffer alive.
  def test_block_that_alone_keeps_its_buffer_alive
    code = <<-'RUBY'
      class Inner < Hash
        def each(&block)
          $blocks << block
          Fiber.yield
        end
      end
      class Outer < Hash
        def each(&block)
          Object.new.instance_exec(Inner.new, 1, &block)
        end
      end
      $blocks = []
      $gone = 0
      COUNT = proc { $gone += 1 }
      def abandon(n)
        n.times do
          Fiber.new do
            buf = PacketBuf.new
            ObjectSpace.define_finalizer(buf, COUNT)
            buf << Outer.new
          end.resume
        end
      end
      Thread.new { abandon(100) }.join
      # New buffers reuse the memory of buffers that were freed too early.
      others = Array.new(10) do
        GC.start
        Array.new(50) { PacketBuf.new << "x" * 1000 }
      end
      outcomes = $blocks.map do |block|
        begin
          block.call(1, "y" * 100_000)
        rescue RuntimeError => error
          error.message
        end
      end
      bytes = others.flatten.map(&:to_str).uniq.map(&:size)
      puts outcomes.uniq.map(&:inspect), $gone, bytes
    RUBY
    outcome, *rest = run_ruby(code).split("
")
    assert_includes ["nil", ENDED.inspect], outcome
    assert_equal %w[0 1003], rest
  end

  # --- internal objects stay hidden -----------------------------------------------------------------------

  # Copies each object that ObjectSpace shows during encoding and decoding, and inspects what it references.
  def test_internal_objects_are_not_found
    assert_equal "well
", run_ruby(<<-'RUBY', "-robjspace")
      COPIED = [:dup, :clone]
      def plain?(object)
        klass = Kernel.instance_method(:class).bind(object).call
        klass == Object || klass == BasicObject
      end
      def search
        before = $known
        found = ObjectSpace.each_object(BasicObject).reject { |object| !plain?(object) || before.key?(object.__id__) }
        found.each { |object| COPIED.each { |copy| object.__send__(copy) } }
        GC.start
        abort "found #{found.inspect}" unless found.empty?
        ObjectSpace.each_object(PacketBuf) do |buf|
          COPIED.each do |copy|
            begin
              buf.__send__(copy)
              abort "a copied buffer"
            rescue TypeError
            end
          end
          ObjectSpace.reachable_objects_from(buf)
        end
        ObjectSpace.memsize_of_all
        ObjectSpace.dump_all(output: $null)
      end
      class Searching < Hash
        def each(&block)
          search
          leads = ObjectSpace.reachable_objects_from(block)
          leads.each { |lead| lead.inspect }
          ObjectSpace.dump(block)
          COPIED.each { |copy| block.__send__(copy).call(1, 2) }
          yield 1, self[:inner] if self[:inner]
          search
        end
      end
      module SearchingHash
        def hash
          search if $searching
          super
        end
      end
      Array.prepend(SearchingHash)
      $null = File.open(File::NULL, "w")
      $known = {}
      $searching = false
      ObjectSpace.each_object(BasicObject) { |object| $known[object.__id__] = true if plain?(object) }
      kept = []
      4.times do
        buf = PacketBuf.new
        buf << Searching[:inner, Searching.new]
        buf.reset << { [1] => "key", "text" => [[]] * 40 }
        $searching = true
        buf.seek(0).extract_object
        $searching = false
        kept << buf
      end
      search
      puts "well"
    RUBY
  end

  # --- containers changed while they are written ---------------------------------------------------------

  def test_array_changed_while_it_is_written
    { ->(array) { array.clear } => "0a 08 09 00 00 0b",
      ->(array) { array.pop } => "0a 08 09 82 00 0b",
      ->(array) { array.concat([7] * 10_000) } => "0a 08 09 82 83 0b",
      ->(array) { array[1] = "x" } => "0a 08 09 07 01 78 83 0b",
      ->(array) { array.replace([5, 6, 7, 8]) } => "0a 08 09 86 87 0b",
      ->(array) { array.shift } => "0a 08 09 83 00 0b" }.each do |change, bytes|
      array = []
      array.push(OwnEach.new { change.call(array) }, 2, 3)
      assert_equal bytes, encode(array)
    end
  end

  def test_hash_changed_while_it_is_written
    { ->(hash) { hash.delete(2) } => "08 81 08 09 83 84 09",
      ->(hash) { hash.delete(1) } => "08 81 08 09 82 83 83 84 09",
      ->(hash) { hash.clear } => "08 81 08 09 09",
      ->(hash) { hash[2] = 9 } => "08 81 08 09 82 89 83 84 09" }.each do |change, bytes|
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
    assert_usable @buf
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
    bytes = Hex.decode("0a 80 08") + MEGABYTES + Hex.decode("07 c0 8d b7 01") + MEGABYTES + Hex.decode("81 09 82 0b")
    assert @buf.to_str == bytes, "bytes around the ones that made the buffer grow"
  end

  def test_each_that_uses_the_frame
    frame = PacketFrameOut.new.reset
    frame << OwnEach.new { |block| frame.use_12byte_header = true; block.call(1, 2) }
    assert_equal "a5 00 00 00 00 00 03 de ad be ef 5a 81 82 09", Hex.encode(frame.compute_frame_header.to_str)
    frame.reset << OwnEach.new { |block| frame.compute_frame_header; block.call(1, 2) }
    assert_equal 16, frame.pos
    inbound = PacketFrameIn.new.reset
    inbound << OwnEach.new do |block|
      inbound.reset
      inbound.assemble(Hex.decode("a5 01 00 00 00 00 00 01 81"), 0)
      block.call(1, 2)
    end
    assert_predicate inbound, :have_complete_frame?
  end

  # --- depth ---------------------------------------------------------------------------------------------

  def test_overridden_each_at_every_level
    hash = 63.times.inject(1) { |inner, _| OwnEach.new { |block| block.call(2, inner) } }
    assert_equal "08 82 " * 63 + "81" + " 09" * 63, encode(hash)
    too_deep = OwnEach.new { |block| block.call(2, hash) }
    assert_raises_with(RuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded") { @buf << too_deep }
    itself = OwnEach.new { |block| block.call(1, itself) }
    assert_raises_with(RuntimeError, "serialize_rbobj_to_packetbuf: maxdepth exceeded") { @buf << itself }
    assert_usable @buf
  end

  def test_overridden_each_that_writes_itself_forever
    skip "Ruby #{RUBY_VERSION} raises out of its signal handler, and may hang" if RUBY_VERSION < "2.3"
    hash = OwnEach.new { @buf << hash }
    assert_raises(SystemStackError) { @buf << hash }
    assert_usable @buf
  end
end
