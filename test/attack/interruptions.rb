# frozen_string_literal: true

require "continuation"
require "timeout"
require "vorn_rpc_ext"

# Ruby code in the middle of encoding and decoding that does not return, returns late or returns twice: it raises,
# throws, times out, is killed, stays in an abandoned fiber, or is entered again through a continuation, while
# containers and buffers change and the garbage collector moves everything. No model can predict the bytes. The
# invariants: the result is a value, or an exception of ours or of the interpreter; a buffer still works afterwards; the
# bytes of other buffers stay unchanged.
module Interruptions
  class Stopped < StandardError
  end

  # The permitted exceptions. Any other is a fault of the extension or of this program. EncodingError is for a symbol
  # that was overwritten while it was read.
  OUTCOMES = [Stopped, Timeout::Error, RuntimeError, EncodingError, FiberError, RangeError, NoMethodError,
              ThreadError].freeze

  # A Hash whose `each` takes a step before, between and after its entries.
  class Stepping < Hash
    def initialize(run, entries)
      super()
      @run = run
      @entries = entries
    end

    def each(&block)
      @run.blocks << block if @run.blocks.size < 20
      @entries.each do |entry|
        @run.step(block)
        entry.size == 2 && @run.below(2) == 0 ? yield(*entry) : yield(entry)
      end
      @run.step(block)
      self
    end
  end

  # Keys that are containers perform steps while they are read.
  module SteppingKeys
    class << self
      attr_accessor :run
    end

    def hash
      SteppingKeys.run.step(nil) if SteppingKeys.run
      super
    end

    def eql?(other)
      SteppingKeys.run.step(nil) if SteppingKeys.run
      super
    end
  end

  class Run
    include VORN::PROTO

    attr_reader :blocks, :steps

    def initialize(seed)
      @random = Random.new(seed)
      @steps = 0
      @counts = Hash.new(0)
      forget
    end

    def below(number)
      @random.rand(number)
    end

    def pick(list)
      list[below(list.size)] unless list.empty?
    end

    def run(steps)
      round until @steps >= steps
      self
    end

    def counts
      @counts.sort_by { |name, _| name.to_s }.map { |name, count| "#{name} #{count}" }.join(", ")
    end

    # --- one step, in the middle of something -------------------------------------------------------------

    QUIET = [:nothing, :collect, :change, :use, :call_again, :call_late, :nest, :in_fiber, :refine, :pass].freeze
    LEAVING = [:raise, :throw, :time_out, :raise_in_thread, :kill, :abandon, :leave_through].freeze

    def step(block)
      return if @depth > 3 || @budget <= 0
      @budget -= 1
      @steps += 1
      name = below(12) == 0 ? pick(LEAVING) : pick(QUIET)
      @counts[name] += 1
      deeper { __send__("step_#{name}", block) }
    end

    private

    # Containers that a step creates for itself perform no steps.
    def deeper
      keys, SteppingKeys.run = SteppingKeys.run, nil
      @depth += 1
      yield
    ensure
      @depth -= 1
      SteppingKeys.run = keys
    end

    def forget
      @blocks = []
      @continuations = []
      @buffers = Array.new(3) { PacketBuf.new }
      @containers = []
      @depth = 0
      @budget = 60
      @again = 4
      @storing_many = 0
    end

    # --- a round ------------------------------------------------------------------------------------------

    def round
      forget
      guard = PacketBuf.new << ["guard", { 1 => 2 }]
      bytes = guard.to_str
      3.times { attempt { below(3) == 0 ? read : write } }
      @late = true
      late
      @late = false
      @budget = 0
      check(guard, bytes)
      GC.start if below(40) == 0
      @steps += 1
    end

    # Runs the work in a thread, in a fiber or directly.
    def attempt(&work)
      case below(4)
      when 0 then in_thread(&work)
      when 1 then Fiber.new { outcome(&work) }.resume
      else outcome(&work)
      end
    rescue FiberError, ThreadError
      nil
    end

    def in_thread(&work)
      depth = @depth
      thread = Thread.new { outcome(&work) }
      thread.join(5) or raise "the thread does not end"
      @depth = depth
    end

    def outcome
      catch(:out) do
        begin
          yield
        rescue *OUTCOMES => error
          error
        end
      end
    end

    def late
      @blocks.each do |block|
        attempt { block.call(*pick([[1, 2], [[1]], [[]], [1, 2, 3], [[[3], { 4 => 5 }]]])) }
      end
      return if @again <= 0 || @continuations.empty?
      @again -= 1
      thread, continuation = @continuations.pop
      return unless thread == Thread.current
      begin
        continuation.call
      rescue RuntimeError # belongs to another fiber
        nil
      end
    end

    def check(guard, bytes)
      raise "the bytes of another buffer changed" unless guard.to_str == bytes
      @buffers.each do |buf|
        raise "wrong position" if buf.pos > 1 << 24
        buf.reset << [1, { "a" => [2.5] }, nil]
        raise "wrong bytes" unless buf.to_str == "\x0A\x81\x08\x07\x01a\x0A\x04\x40\x04\0\0\0\0\0\0\x0B\x09\x00\x0B".b
        raise "wrong value" unless buf.seek(0).extract_object == [1, { "a" => [2.5] }, nil]
      end
    end

    def write
      pick(@buffers) << value(3)
    end

    def read
      value = keyed
      many = value[1].size > ENTERED_TWICE ? 1 : 0
      @storing_many += many
      buf = pick(@buffers)
      buf.reset << value
      buf.preserve_symbols_on_extract = below(2) == 0
      SteppingKeys.run = self
      if below(4) == 0
        buf.seek(0).copy_object(pick(@buffers))
      else
        buf.seek(0).extract_object
      end
    ensure
      SteppingKeys.run = nil
      @storing_many -= many
    end

    def keyed
      many = Array.new(pick([1, 3, 40])) { |i| [[i, "k"], pick([[], {}, nil, [[i]]])] }
      [[], Hash[many], { { 1 => [] } => :symbol, [[2]] => [3] }, Array.new(pick([2, 40])) { [] }]
    end

    def value(levels)
      return pick([nil, 1, 2.5, "text", :symbol, 2**62, "x" * 70_000, [1] * 300, { "k" => "v" }]) if levels <= 0
      case below(6)
      when 0 then kept(Array.new(1 + below(4)) { value(levels - 1) })
      when 1 then kept(Hash[Array.new(1 + below(3)) { |i| [pick([i, "k#{i}", [i]]), value(levels - 1)] }])
      when 2 then { stepping(levels - 1) => value(levels - 1) }
      else stepping(levels)
      end
    end

    def stepping(levels)
      entries = Array.new(below(4)) { |i| pick([[value(levels - 1), i], [value(0)], [], [i, value(levels - 1), 3]]) }
      Stepping.new(self, entries)
    end

    def kept(container)
      @containers << container
      container
    end

    # --- steps that return ----------------------------------------------------------------------------------

    def step_nothing(_)
    end

    def step_collect(_)
      return GC.start(full_mark: below(3) == 0) unless below(12) == 0 && GC.respond_to?(:compact)
      below(2) == 0 && GC.respond_to?(:verify_compaction_references) ? verify : GC.compact
    rescue NotImplementedError
      nil
    end

    def verify
      options = { toward: :empty }
      options[:expand_heap] = false if RUBY_VERSION >= "3.2"
      GC.verify_compaction_references(**options)
    end

    def step_change(_)
      container = pick(@containers)
      case container
      when Array
        pick([-> { container.clear }, -> { container.concat([nil] * 500) }, -> { container.shift },
              -> { container.replace([1]) }]).call
      when Hash
        pick([-> { container.clear }, -> { container.delete(container.keys.first) }, -> { container[below(9)] = 1 },
              -> { container.rehash }]).call
      end
    rescue RuntimeError # the Hash is being iterated
      nil
    end

    def step_use(_)
      buf = pick(@buffers)
      pick([-> { buf << [1, "two"] }, -> { buf.write_raw("x" * pick([1, 70_000])) }, -> { buf.reset },
            -> { buf.seek(below(50)) },
            -> { buf.to_str }, -> { buf.write_object(value(1)) }, -> { buf.copy_object(pick(@buffers)) },
            -> { buf.extract_object }, -> { buf.dup }, -> { @buffers[below(3)] = PacketBuf.new }]).call
    rescue *OUTCOMES, TypeError
      nil
    end

    def step_call_again(block)
      block.call(*pick([[1, 2], [[1, 2, 3]], [[]], [value(1), 2]])) if block
    end

    def step_call_late(_)
      block = pick(@blocks)
      begin
        block.call(below(9), value(0)) if block
      rescue *OUTCOMES
        nil
      end
    end

    def step_nest(_)
      outcome { below(2) == 0 ? write : read }
    end

    def step_in_fiber(block)
      Fiber.new { outcome { block ? block.call(1, value(1)) : write } }.resume
    end

    # A refinement of methods that the extension calls. Nothing activates it.
    def step_refine(_)
      return if @refined && below(50) > 0
      @refined = true
      Module.new do
        refine(Hash) { def each; raise "an inactive refinement was called"; end }
        refine(Array) do
          def hash; raise "an inactive refinement was called"; end
          def eql?(_); raise "an inactive refinement was called"; end
        end
      end
    end

    def step_pass(_)
      Thread.pass
    end

    # --- steps that do not return ---------------------------------------------------------------------------

    def step_raise(_)
      raise Stopped
    end

    def step_throw(_)
      throw :out
    rescue ArgumentError, UncaughtThrowError # without a matching catch
      raise Stopped
    end

    def step_time_out(_block)
      Timeout.timeout(0.001) { sleep }
    end

    def step_raise_in_thread(_)
      thread = Thread.current
      Thread.new { thread.raise(Stopped) }.join
      sleep 0.001
    end

    def step_kill(_)
      Thread.current == Thread.main ? raise(Stopped) : Thread.current.kill
    end

    # The fiber is abandoned: its resumer continues, and nothing resumes it again.
    def step_abandon(block)
      depth = @depth
      fiber = Fiber.new { outcome { block ? block.call(Leaving.new, 1) : write } }
      fiber.resume
      @depth = depth
    end

    class Leaving < Hash
      def each()
        yield 1, 2
        Fiber.yield
      end
    end

    # With a Hash of up to this many keys, the interpreter survives re-entering an insertion that has ended. With more
    # keys, later Rubies write past their table or into freed memory, even without an extension: a literal of sixteen
    # keys is enough (docs/operations/threat-model.md).
    ENTERED_TWICE = RUBY_VERSION < "2.4" ? Float::INFINITY : 8

    # Captures a continuation here; it is called at once or after everything has ended.
    def step_leave_through(_)
      return if @late || @continuations.size > 3 || @storing_many > 0
      callcc { |continuation| @continuations << [Thread.current, continuation] }
    end
  end
end

Array.prepend(Interruptions::SteppingKeys)
