# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Deep values on the machine stack: those of the default limit fit, deeper ones are refused where it would end.
class DepthTest < ExtTest
  include RubyProcess

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
end
