# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# A key's `hash` and `eql?` may leave a decode for good, or re-enter its stack frames after they have returned.
class ReentryTest < ExtTest
  include RubyProcess

  TAKE = <<-'RUBY'

    module Hook
      class << self; attr_accessor :body; end
      def hash
        body, Hook.body = Hook.body, nil
        body.call if body
        super
      end
      def eql?(other)
        body, Hook.body = Hook.body, nil
        body.call if body
        super
      end
    end
    Array.prepend(Hook)
    ARRAYS = 20_000
    # Two Hashes with an Array as key, and between them more arrays than a stack frame has room to count.
    BYTES = "\x0a\x08\x0a\x81\x0b\x81\x09".b + "\x0a\x81\x82\x83\x0b".b * ARRAYS + "\x08\x0a\x82\x0b\x82\x09\x0b".b
    BUF = PacketBuf.new.write_raw(BYTES)
    def right?(value)
      value.first == { [1] => 1 } && value.last == { [2] => 2 } &&
        value[1...-1].all? { |it| it == [1, 2, 3] || it.is_a?(Hash) }
    end
    # Reuses the memory that a decode has freed too early.
    def fill
      $junk = Array.new(60) { "\xff".b * (4 * ARRAYS + 8) }
      GC.start
    end
  RUBY

  # Re-enters a decode that has returned. Before 3.0 Ruby refuses such a continuation.
  def test_a_decode_is_entered_again_after_it_has_returned
    out, = run_ruby_with_errors(<<-RUBY, "-W0", "-rcontinuation")
      #{TAKE}
      times = 0
      Hook.body = -> { callcc { |continuation| $back = continuation } }
      begin
        value = BUF.seek(0).extract_object
        abort "wrong" unless right?(value) && BUF.pos == BYTES.size
        fill
        value = nil
        $back.call if (times += 1) < 10
        puts times
      rescue RuntimeError => error
        puts error.message
      end
    RUBY
    assert_equal RUBY_VERSION < "3.0" ? "continuation called across stack rewinding barrier\n" : "10\n", out
  end

  # The second key's `hash` jumps back into the first key's, within one decode.
  def test_a_decode_is_entered_again_before_it_returns
    out, = run_ruby_with_errors(<<-RUBY, "-W0", "-rcontinuation")
      #{TAKE}
      times = 0
      again = lambda do
        fill
        $back.call if (times += 1) < 5
      end
      Hook.body = lambda do
        callcc { |continuation| $back = continuation }
        Hook.body = again
      end
      value = BUF.seek(0).extract_object
      puts right?(value), times
    RUBY
    assert_equal "true\n5\n", out
  end

  # A continuation that was taken before the decode skips the decode's stack frames.
  def test_decodes_that_are_left_by_a_continuation
    out, = run_ruby_with_errors(<<-RUBY, "-W0", "-rcontinuation")
      #{STATUS}
      #{TAKE}
      before = status("VmRSS")
      left = 0
      200.times do
        begin
          callcc do |out|
            Hook.body = -> { out.call }
            BUF.seek(0).extract_object
          end
        rescue RuntimeError => error
          abort error.message unless error.message =~ /rewinding barrier/
        end
        left += 1
      end
      Hook.body = nil
      puts left, right?(BUF.seek(0).extract_object), (status("VmHWM") - before) / 1_048_576
    RUBY
    left, right, peak = out.split
    assert_equal %w[200 true], [left, right]
    assert_operator peak.to_i, :<, 300, "MB" unless ENV["LD_PRELOAD"]
  end

  # A fiber that waits in a key's `hash` is abandoned, or resumed when its buffer has been written to and abandoned.
  def test_fibers_that_are_abandoned
    assert_equal "done\n", run_ruby(<<-RUBY)
      #{TAKE}
      kept = []
      100.times do |i|
        buf = PacketBuf.new.write_raw(BYTES).seek(0)
        fiber = Fiber.new do
          Hook.body = -> { Fiber.yield }
          buf.extract_object
        end
        begin
          fiber.resume
        rescue FiberError => error
          abort error.message unless error.message =~ /rewinding barrier/ # 2.2
          next
        end
        buf.seek(BYTES.size).write_raw("x" * 100_000) if i.odd?
        buf = nil
        kept << fiber if i % 10 == 0
        GC.start if i % 25 == 0
      end
      fill
      kept.each { |fiber| abort "wrong" unless right?(fiber.resume) }
      puts :done
    RUBY
  end

  # Pairs of a wide Hash are stored together until a key may call `hash` or `eql?`, which two equal large Integers do.
  # Each call in turn writes to the buffer, or is entered again after the decode has returned.
  WIDE = <<-'RUBY'
    module Hook
      class << self; attr_accessor :body; end
      def hash
        Hook.body.call if Hook.body
        super
      end
      def eql?(other)
        Hook.body.call if Hook.body
        super
      end
    end
    [Array, (2**70).class].each { |klass| klass.prepend(Hook) }
    def hash_of(*pairs)
      pairs.inject(PacketBuf.new.write_raw("\x08")) { |buf, (key, value)| buf << key << value }.write_raw("\x09").to_str
    end
    LARGE = 2**62 + 5
    SCALARS = Array.new(150) { |i| [i * 7, "value #{i}"] }
    TWICE = [[LARGE, 1], *SCALARS, [LARGE, 2], [LARGE, 3]]
    HASHES = [TWICE, SCALARS + TWICE, SCALARS + TWICE.values_at(0, -1, -2), SCALARS + [[8, { [1] => 2 }]] + TWICE,
              SCALARS + [[[1], 2]] + TWICE, TWICE + [[8, { [1] => 2 }], [[3], 4]] + SCALARS].map { |it| hash_of(*it) }
    LAST = "last" * 20
    def wide(bytes)
      PacketBuf.new.write_raw("\x0a").write_raw(bytes).write_object(LAST).write_raw("\x0b").seek(0)
    end
    def calls(buf)
      count = 0
      Hook.body = -> { count += 1 }
      buf.extract_object
      Hook.body = nil
      count
    end
  RUBY

  def test_wide_hashes_whose_keys_write_to_the_buffer
    out = run_ruby(WIDE + <<-'RUBY', "-W0")
      outcomes = Hash.new(0)
      HASHES.each do |bytes|
        plain = wide(bytes).extract_object
        before = bytes.bytesize + 1
        (0...calls(wide(bytes))).each do |at|
          buf = nil
          { grow: -> { buf.seek(before + 90).write_raw("g" * 3_000_000) },
            lengthen: -> { buf.seek(before).write_raw("\x07\xff\xff\xff\x7f") },
            reset: -> { buf.reset }, shift: -> { buf.seek(before).write_raw("\x0b") } }.each do |name, action|
            buf = wide(bytes)
            left = at
            Hook.body = -> { (left -= 1) == -1 && action.call }
            result = begin
              buf.extract_object
            rescue RuntimeError => error
              error.message
            end
            Hook.body = nil
            right = case name
                    when :lengthen then result.is_a?(String) && result.start_with?("decode_")
                    when :shift then result == plain[0, 1]
                    else result == plain
                    end
            abort "#{name} at call #{at}: #{result.inspect[0, 200]}" unless right
            outcomes[name] += 1
          end
        end
      end
      puts outcomes.values.uniq.size, outcomes[:grow] > 4
    RUBY
    assert_equal "1\ntrue\n", out
  end

  # Each decode that has returned is entered again where it was, wherever that is.
  def test_wide_hashes_are_entered_again
    skip "Ruby #{RUBY_VERSION} refuses such continuations" if RUBY_VERSION < "3.0" || !hashes_can_be_resumed?
    out, = run_ruby_with_errors(WIDE + <<-'RUBY', "-W0", "-rcontinuation")
      entered = 0
      HASHES.each do |bytes|
        plain = wide(bytes).extract_object
        [:shift, :pop].each do |turn|
          taken = []
          count = 0
          Hook.body = -> { callcc { |continuation| taken << continuation } if (count += 1) <= 12 }
          value = wide(bytes).extract_object
          Hook.body = nil
          abort "wrong: #{value.inspect[0, 300]}" unless value == plain
          value = nil
          $junk = Array.new(40) { |i| Array.new(200 + i) { i } << "j" * 4000 }
          GC.start
          back = taken.send(turn)
          entered += 1
          back.call if back
        end
      end
      puts entered > 20
    RUBY
    assert_equal "true\n", out
  end

  # Another thread raises an exception in a thread that waits in a key's `hash`, or kills it.
  def test_threads_interrupted_in_a_key
    assert_equal "done\n", run_ruby(<<-RUBY)
      #{TAKE}
      50.times do |i|
        buf = PacketBuf.new.write_raw(BYTES).seek(0)
        waiting = Queue.new
        thread = Thread.new do
          Hook.body = -> { waiting << 1; sleep }
          begin
            buf.extract_object
          rescue IOError => error
            error.message
          end
        end
        waiting.pop
        i.odd? ? thread.raise(IOError, "no") : thread.kill
        abort "wrong" unless thread.value == (i.odd? ? "no" : nil)
        abort "unusable" unless right?(buf.seek(0).extract_object)
      end
      puts :done
    RUBY
  end

  # Objects under construction must stay referenced, wherever a compaction moves them.
  def test_references_are_verified_in_callbacks
    skip "Ruby #{RUBY_VERSION} does not verify compactions" unless GC.respond_to?(:verify_compaction_references)
    assert_equal "done\n", run_ruby(<<-RUBY)
      #{TAKE}
      verify = -> { GC.verify_compaction_references(toward: :empty) }
      keyed = { "a" * 40 => 1, ["key"] => { [2.5e300] => "v" * 40 }, { 1 => 2 } => [["x"]], [1] => 2 }
      bytes = (PacketBuf.new << [keyed] * 3).to_str
      5.times do
        buf = PacketBuf.new.write_raw(bytes).seek(0)
        plain = buf.extract_object
        Hook.body = verify
        abort "wrong" unless buf.seek(0).extract_object == plain
      end
      puts :done
    RUBY
  end

  # The interpreter's C code ignores refinements, and so must a decode.
  def test_refinements_are_not_called
    assert_equal "{[1]=>2}\n", run_ruby(<<-'RUBY').delete(" ")
      module Refined
        refine(Array) { def hash; raise "called"; end; def eql?(_) raise "called"; end }
        refine(Hash) { def hash; raise "called"; end; def []=(_, _) raise "called"; end }
      end
      using Refined
      p PacketBuf.new.write_raw("\x08\x0a\x81\x0b\x81\x0a\x81\x0b\x82\x09").seek(0).extract_object
    RUBY
  end

  # In each step a key's `hash` takes a random action. The decode must return the right value or end as the action
  # demands, and the buffer must stay usable. VORN_STEPS sets the number of steps, VORN_SEED their seed.
  STEPS = <<-'RUBY'
    require "fiber"
    Hook.body = nil
    random = Random.new(SEED)
    value = [{ "a" => 1, [1] => { [2.5e300] => "x" * 40 }, { [3] => 4 } => [[5]] }, { [] => [], [nil] => {} }] * 2
    bytes = (PacketBuf.new << value << value).to_str
    bytes = bytes.byteslice(0, bytes.bytesize / 2)
    plain = PacketBuf.new.write_raw(bytes).seek(0).extract_object
    collect = [-> { GC.start }]
    collect << -> { GC.compact } if GC.respond_to?(:compact) && (GC.compact rescue nil)
    if collect.size > 1 && GC.respond_to?(:verify_compaction_references)
      collect << -> { GC.verify_compaction_references(toward: :empty) }
    end
    waiting = []
    counts = Hash.new(0)
    buf = nil
    after = lambda { |n, work| lambda { n == 0 ? work.call : Hook.body = after.call(n - 1, work) } }
    actions = {
      raise: -> { raise IOError, "key" }, throw: -> { throw :out, :thrown }, yield: -> { Fiber.yield :left },
      read: -> { buf.seek(0).extract_object }, reset: -> { buf.reset },
      copy: -> { buf.seek(0).copy_object(PacketBuf.new) },
      grow: -> { buf.seek(bytes.bytesize).write_raw("g" * 200_000) },
      write: -> { buf.seek(random.rand(bytes.bytesize)).write_raw(random.bytes(1 + random.rand(9))) },
      collect: -> { collect[random.rand(20) == 0 ? random.rand(collect.size) : 0].call }, drop: -> { buf = nil },
      enter: -> { callcc { |c| $in = c } }, kill: -> { Thread.current.kill }
    }
    actions.delete(:enter) unless RESUMED
    STEPS.times do |i|
      name = actions.keys[random.rand(random.rand(20) == 0 ? actions.size : actions.size - 1)]
      name = :collect if i % 40 == 0
      buf = PacketBuf.new.write_raw(bytes).seek(0)
      again = 0
      $in = nil
      Hook.body = after.call(random.rand(8), actions[name])
      decode = lambda do
        begin
          catch(:out) { buf.extract_object }
        rescue IOError, RuntimeError, FiberError, EncodingError => error
          error
        end
      end
      found = case name
              when :yield then fiber = Fiber.new(&decode); waiting << [fiber, buf]; fiber.resume
              when :kill then Thread.new(&decode).value
              else decode.call
              end
      if $in && again < 2 # the decode fills the same objects once more
        again += 1
        begin
          $in.call
        rescue RuntimeError => error
          abort error.message unless error.message =~ /barrier/
        end
      end
      counts[name] += 1
      right = case found
              when plain, :thrown, :left, nil then true
              when IOError then found.message == "key"
              when FiberError then found.message =~ /barrier/
              when RuntimeError then name == :write && found.message =~ /\Adecode_/
              when EncodingError, Integer, String, Hash, Float, true, false then name == :write
              when Array then [:write, :enter].include?(name)
              end
      abort "step #{i}, #{name}: #{found.inspect[0, 200]}" unless right
      if waiting.size > 20 # some are resumed, the others are abandoned
        waiting.shuffle!(random: random).pop(5).each do |fiber, _|
          next unless fiber.alive?
          result = fiber.resume
          abort "resumed" unless [plain, FiberError].any? { |wanted| wanted === result }
        end
        waiting.clear
      end
      Hook.body = nil
    end
    abort "unusable" unless PacketBuf.new.write_raw(bytes).seek(0).extract_object == plain
    puts counts.values.inject(:+)
  RUBY

  def test_random_keys
    steps = ENV.fetch("VORN_STEPS", "3000").to_i
    settings = "SEED = #{ENV.fetch("VORN_SEED", "1")}; STEPS = #{steps}; RESUMED = #{hashes_can_be_resumed?}\n"
    out, = run_ruby_with_errors("#{TAKE}#{settings}#{STEPS}", "-W0", "-rcontinuation")
    assert_equal "#{steps}\n", out
  end

  # --- bytes of earlier frames -----------------------------------------------------------------------------

  # A string may reach beyond its payload, into bytes of an earlier frame: it has exactly those bytes, or is refused.
  def test_strings_that_reach_behind_their_frame
    frame = PacketFrameIn.new
    first = (0...120).map { |i| i + 130 }.pack("C*")
    receive = lambda do |payload|
      bytes = [0xA5, 1, 0, payload.bytesize].pack("CCnN") + payload
      frame.reset
      assert_equal bytes.bytesize, frame.assemble(bytes, 0)
      frame.seek_payload_start
    end
    receive.call(first)
    (0..127).each do |length|
      [5, 6, 7].each do |type|
        receive.call([type, length].pack("CC"))
        kept = first.byteslice(2, length) # behind the type and the length
        if length <= 118
          found = frame.extract_object
          assert_equal [kept, 10 + length], [found.b, frame.pos], "length #{length}"
        else
          underrun = "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes"
          assert_raises_with(RuntimeError, underrun) { frame.extract_object }
        end
      end
    end
  end
end
