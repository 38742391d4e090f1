# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Decoding recurses on the machine stack: values within the default maxdepth fit, and deeper ones must raise
# SystemStackError before the stack overflows.
class DepthTest < ExtTest
  include RubyProcess

  DEEP = <<-'RUBY'
    KINDS = {
      array: ->(n) { "\x0a" * n + "\x0b" * n },
      hash: ->(n) { "\x08\x80" * n + "\x80" + "\x09" * n },
      array_key: ->(n) { "\x08" + "\x0a" * n + "\x0b" * n + "\x80\x09" },
      hash_keys: ->(n) { "\x08" * n + "\x80" + "\x80\x09" * n },
      equal_keys: ->(n) { "\x08" + ("\x0a" * n + "\x08\x80\x80\x09" + "\x0b" * n + "\x80") * 2 + "\x09" }
    }
    WHERE = {
      main: ->(&work) { work.call },
      thread: ->(&work) { Thread.new(&work).value },
      fiber: ->(&work) { Fiber.new(&work).resume }
    }
    def outcome
      GC.stress = STRESS
      yield.class
    rescue SystemStackError => error
      GC.stress = false
      error.class
    ensure
      GC.stress = false
    end
    def read(bytes)
      buf = PacketBuf.new.write_raw(bytes).seek(0)
      buf.maxdepth = 2**31 - 1
      outcome { buf.extract_object }
    end
    def check(found)
      found.each { |it| abort "#{it} #{caller[0]}" unless [Array, Hash, SystemStackError].include?(it) }
    end
    # Every decode runs twice: the second one fails if an aborted first one left state behind.
    def read_all(depths, kinds = KINDS.keys, places = WHERE.keys)
      kinds.product(depths, places) do |kind, depth, place|
        bytes = KINDS[kind].call(depth)
        2.times { check(WHERE[place].call { [read(bytes), read(bytes)] }) }
      end
      p PacketBuf.new.write_raw("\x0a\x0b").seek(0).extract_object
    end
  RUBY
  CALM = "STRESS = false\n#{DEEP}".freeze
  STRESSED = "STRESS = true\n#{DEEP}".freeze
  # Ruby replaces sizes below its minimum by the minimum.
  SMALL = { "RUBY_THREAD_MACHINE_STACK_SIZE" => "1", "RUBY_FIBER_MACHINE_STACK_SIZE" => "1" }.freeze

  # There the interpreter's own hash of nested Arrays overruns a fiber's stack and ends the process (3.1, emulated).
  HASH_OVERRUNS = RbConfig::CONFIG["host_cpu"] == "s390x"

  LITTLE = "--disable-gems".freeze # fewer objects to mark in each collection

  def test_values_that_exhaust_the_stack
    assert_equal "[]\n", run_ruby("#{CALM} read_all([200, 1000, 3000, 100_000], [:array, :hash])")
  end

  # Deeper keys exceed maxdepth, or take the interpreter too long: hashing nested keys is quadratic in their depth.
  def test_keys_that_exhaust_the_stack
    skip "the interpreter's own hash overruns the stack here" if HASH_OVERRUNS
    assert_equal "[]\n", run_ruby("#{CALM} read_all([200, 600, 30_000], [:array_key, :hash_keys])")
    assert_equal "[]\n", run_ruby("#{CALM} read_all([400, 1000, 2000, 4000], [:array_key, :equal_keys])")
  end

  def test_values_that_exhaust_small_stacks
    kinds = HASH_OVERRUNS ? "[:array, :hash]" : "KINDS.keys"
    with_env(SMALL) { assert_equal "[]\n", run_ruby("#{CALM} read_all([64, 100, 200, 400, 30_000], #{kinds})") }
  end

  def test_values_that_exhaust_small_stacks_with_a_collection_at_every_allocation
    with_env(SMALL) do
      assert_equal "[]\n", run_ruby("#{STRESSED} read_all([400], [:array], [:thread])", LITTLE)
      assert_equal "[]\n", run_ruby("#{STRESSED} read_all([400], [:hash], [:fiber])", LITTLE)
    end
  end

  # Other depths are left out: if the stack ends inside the interpreter's own hashing, a collection there crashes it.
  def test_keys_that_exhaust_small_stacks_with_a_collection_at_every_allocation
    skip "the interpreter's own hash overruns the stack here" if HASH_OVERRUNS
    with_env(SMALL) do
      assert_equal "[]\n", run_ruby("#{STRESSED} read_all([64, 200], [:array_key], [:thread])", LITTLE)
      assert_equal "[]\n", run_ruby("#{STRESSED} read_all([110], [:equal_keys], [:fiber])", LITTLE)
    end
  end

  # A key's `hash` decodes a message with such a key again: each decode is shallow, but starts deeper on the stack.
  NESTED = <<-'RUBY'
    class Array
      remove_method :hash
      def hash
        PacketBuf.new.write_raw("\x08\x0a\x0b\x80\x09").seek(0).extract_object.size
      end
    end
    WHERE.each_value do |where|
      2.times do
        outcomes = where.call { Array.new(2) { outcome { [].hash } } }
        abort "no SystemStackError" unless check(outcomes) == [SystemStackError] * 2
      end
    end
    puts :done
  RUBY

  def test_decodes_that_start_with_the_stack_used_up
    assert_equal "done\n", run_ruby("#{CALM}#{NESTED}")
    with_env(SMALL) { assert_equal "done\n", run_ruby("#{CALM}#{NESTED}") }
  end

  # A main thread's stack of 8 MB has room for 10,000 levels, so the fixed bound refuses the next one.
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
      there_and_back = -> { (PacketBuf.new << deep).seek(0).extract_object }
      # Compared here: a comparison may take more stack than there is.
      p Thread.new(&there_and_back).value == deep, Fiber.new(&there_and_back).resume == deep
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
end
