# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# A part that is shared twice at each of 61 levels takes more bytes than there is memory for. Writing it must be
# interruptible like any Ruby code, and leave what a failing write leaves.
class InterruptTest < ExtTest
  include RubyProcess

  # Each part takes another loop of the serializer.
  PARTS = {
    "nil" => "nil", "empty hashes" => "[{}] * 400", "pairs" => "{ 1 => 2.5 }", "keys" => "{ { 1 => 2 } => 3 }",
    "Integers" => "[7] * 3_000_000", "long Integers" => "[2**62] * 100_000", "Floats" => "[0.5] * 1_000_000",
    "Strings" => "['text'] * 1_000_000", "long Strings" => "['t' * 100_000] * 300",
    "a String in pieces" => "'t' * 60_000_000", "a Symbol in pieces" => "('s' * 60_000_000).to_sym",
    "a large Hash" => "Hash[(0...100_000).map { |i| [i, i] }]",
    "an each in C" => "Class.new(Hash) { alias_method :each, :each_pair }[(0...100_000).map { |i| [i, i] }]"
  }.freeze

  # The memory limit ends a process whose serializer ignores interrupts.
  BOUNDS = <<-RUBY
    require "timeout"
    Process.setrlimit(:AS, 3 << 30) if ENV["LD_PRELOAD"].to_s.empty?
    def sharing(part)
      61.times.inject(part) { |inner, _| [inner, inner] }
    end
    def bounded(buf)
      started = Process.clock_gettime(Process::CLOCK_MONOTONIC)
      yield
      took = Process.clock_gettime(Process::CLOCK_MONOTONIC) - started
      abort "interrupted only after \#{took} s" if took > 20
      # A failing write keeps what it has written, and the position behind it.
      abort "position \#{buf.pos} of \#{buf.payload_size}" unless buf.pos == buf.payload_size
      abort "wrong bytes at the start" unless buf.seek([buf.pos, 61].min).to_str.bytes.uniq.all? { |byte| byte == 0x0A }
      abort "unusable" unless (buf.reset << [1, { 2 => 3 }]).to_str == "\\x0A\\x81\\x08\\x82\\x83\\x09\\x0B".b
    end
  RUBY

  def assert_runs(code)
    assert_equal "well\n", run_ruby("#{BOUNDS}\n#{code}\nputs :well")
  end

  PARTS.each do |name, part|
    define_method("test_#{name.tr(' ', '_')}_written_without_end") do
      assert_runs(<<-RUBY)
        value = sharing(#{part})
        buf = PacketBuf.new
        bounded(buf) do
          begin
            Timeout.timeout(0.1) { buf << value }
            abort "not interrupted"
          rescue Timeout::Error
          end
        end
      RUBY
    end
  end

  WAYS = {
    "Thread#kill" => "thread.kill",
    "Thread#raise" => "thread.raise(IOError, 'stop')",
    "a fault" => "thread.raise(NoMemoryError)"
  }.freeze

  WAYS.each do |name, stop|
    define_method("test_#{name.gsub(/\W+/, '_')}_while_a_value_is_written") do
      assert_runs(<<-RUBY)
        value = sharing([1.5, "text"])
        5.times do
          buf = PacketBuf.new
          bounded(buf) do
            thread = Thread.new do
              Thread.current.report_on_exception = false if Thread.current.respond_to?(:report_on_exception=)
              buf << value
            end
            sleep 0.01 until buf.pos > 0 # the writer lets this thread run
            #{stop}
            begin
              abort "not interrupted" if thread.value
            rescue IOError, NoMemoryError
            end
          end
        end
      RUBY
    end
  end

  def test_signals_while_a_value_is_written
    assert_equal "asked 3 times, interrupted\n", run_ruby(BOUNDS + <<-'RUBY')
      buf = PacketBuf.new
      asked = 0
      trap("USR1") { asked += 1 }
      trap("INT", "DEFAULT") # a background job inherits SIGINT ignored
      bounded(buf) do
        begin
          child = fork do
            3.times do
              sleep 0.1
              Process.kill(:USR1, Process.ppid)
            end
            sleep 0.1
            Process.kill(:INT, Process.ppid)
          end
          buf << sharing({ { 1 => 2 } => 3 }) # slow, so that even a starved child can signal before memory ends
        rescue Interrupt
          Process.wait(child)
          puts "asked #{asked} times, interrupted"
        end
      end
    RUBY
  end

  def test_an_exception_deferred_until_the_value_is_written
    skip "no Thread.handle_interrupt" unless Thread.respond_to?(:handle_interrupt)
    assert_equal "true true\n", run_ruby(<<-'RUBY')
      value = 20.times.inject(nil) { |inner, _| [inner, inner] }
      buf = PacketBuf.new
      length = 0
      thread = Thread.new do
        begin
          Thread.handle_interrupt(IOError => :never) do
            Thread.current[:there] = true
            buf << value
            length = buf.pos
          end
          sleep 10 # the exception may arrive only now
        rescue IOError
          :raised
        end
      end
      sleep 0.001 until thread[:there]
      thread.raise(IOError)
      puts "#{thread.value == :raised} #{length == 3 * 2**20 - 2}"
    RUBY
  end

  # --- values that change while they are written ----------------------------------------------------------

  # Another thread keeps changing the containers while they are written. The bytes must still decode.
  CHANGES = {
    "Integers" => ["[7] * 200_000", "it.clear; it.concat([8] * 100_000); it.push(*[9] * 100)"],
    "members" => ["['t', nil, 2.5] * 20_000", "it.pop(30_000); it.concat([[1]] * 40_000)"],
    "arrays" => ["Array.new(2_000) { [0.5] * 50 }",
                 "it.each { |a| a.replace([1]) }; it.shift(100); it.concat([[nil] * 70] * 100)"],
    "entries" => ["Hash[(0...60_000).map { |i| [[i], 'text'] }]",
                  "it.each_key { |k| it.delete(k) if k[0] % 7 == 0 }; GC.start"],
    "a long String" => ["'t' * 50_000_000", "it.replace('u' * 50_000_000); it.clear; it << 't' * 50_000_000"],
    "a Hash's each" => ["[{ 1 => 2 }, nil] * 40_000",
                        "Hash.class_eval { alias_method :each, :each_value; alias_method :each, :plain }"]
  }.freeze

  CHANGES.each do |name, (value, change)|
    define_method("test_#{name.gsub(/\W+/, '_')}_changed_while_they_are_written") do
      assert_runs(<<-RUBY)
        $VERBOSE = false # methods are redefined
        class Hash
          alias_method :plain, :each
        end
        it = #{value}
        done = false
        started = Process.clock_gettime(Process::CLOCK_MONOTONIC)
        changing = Thread.new do
          until done
            begin
              #{change}
            rescue RuntimeError # the hash is being iterated
            end
            Thread.pass
          end
        end
        buf = PacketBuf.new
        rounds = 0
        until rounds == 40 || Process.clock_gettime(Process::CLOCK_MONOTONIC) - started > 2
          rounds += 1
          begin
            buf.reset << [it, "end"]
          rescue RuntimeError => error
            # Hash#each_value yields no pairs.
            abort error.message unless error.message =~ /hash entry is not a|rehash|modified during/
            next
          end
          length = buf.pos
          read = buf.seek(0).extract_object
          abort "read \#{read.inspect[0, 100]}" unless read.size == 2 && read[1] == "end" && buf.pos == length
        end
        done = true
        changing.join
      RUBY
    end
  end

  # A signal handler runs on the writing thread, in the middle of the value.
  def test_a_handler_that_uses_the_buffer
    assert_runs(<<-'RUBY')
      buf = PacketBuf.new
      blocks = []
      uses = [-> { buf.write_raw("\x00") }, -> { buf << [nil] }, -> { buf.seek(buf.pos) }, -> { buf.to_str },
              -> { GC.start }, -> { PacketBuf.new << [1] * 40_000 }, -> { blocks.clear }]
      value = [[nil] * 30_000, { "k" => [1] * 50_000 }, "t" * 20_000_000]
      20.times do |round|
        count = 0
        trap("USR1") { uses[(count += 1) % uses.size].call }
        done = false
        sender = Thread.new do
          until done
            Process.kill(:USR1, Process.pid)
            sleep 0.0005
          end
        end
        buf.reset << value
        length = buf.pos
        done = true
        sender.join
        trap("USR1", "IGNORE")
        abort "only #{length} bytes" unless length >= 20_080_000
      end
      abort "unusable" unless (buf.reset << 1).to_str == "\x81".b
    RUBY
  end

  # --- a String written in pieces -------------------------------------------------------------------------

  PIECE = 16 << 20

  def test_lengths_around_a_piece
    [PIECE - 1, PIECE, PIECE + 1, 2 * PIECE - 1, 2 * PIECE, 2 * PIECE + 1].each do |length|
      text = "a" * (length - 2) + "\u00e9"
      [[text, "\x07"], [text.b, "\x05"], [text.to_sym, "\x06"]].each do |value, type|
        buf = PacketBuf.new.seek(3)
        buf << value
        groups = [length & 0x7F | 0x80, length >> 7 & 0x7F | 0x80, length >> 14 & 0x7F | 0x80, length >> 21].pack("C*")
        assert buf.to_str == "\0\0\0#{type}".b + groups + text.b, "#{length} bytes of #{value.class}"
      end
    end
  end

  def test_a_long_string_is_neither_frozen_nor_shared
    text = "a" * (PIECE + 1)
    buf = PacketBuf.new << text
    text << "b"
    text.setbyte(0, 99)
    refute_predicate text, :frozen?
    assert_equal [PIECE + 6, "a", "aa"], [buf.pos, buf.to_str[5], buf.to_str[-2..-1]]
  end
end
