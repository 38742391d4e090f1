# frozen_string_literal: true

require_relative "helper"
require_relative "own_each"
require_relative "ruby_process"

# A continuation resumes frames that have already returned: the machine stack is as it was then, the heap as it is now.
class ContinuationTest < ExtTest
  include RubyProcess

  START = <<-'RUBY'
    require "continuation" # deprecated, so these processes run without warnings
    ENDED = "serialize_rbobj_to_packetbuf: hash iteration has ended"
    def text(buf)
      buf.to_str.unpack("H*")[0]
    end
    def worded
      yield
      nil
    rescue RuntimeError => error
      error.message
    end
  RUBY

  ENDED = "serialize_rbobj_to_packetbuf: hash iteration has ended"
  UNSUPPORTED = "serialize_rbobj_to_packetbuf: unsupported rb_type"

  # Each program re-enters the writing of a value that has already been written.
  PROGRAMS = {
    "an each resumed after writing has ended" => [<<-'RUBY', ["08818209", "0881820a81820b", ENDED]],
      $times = 0
      $buf = PacketBuf.new
      message = worded do
        $buf << OwnEach.new { |block|
          block.call(1, 2)
          callcc { |k| $again = k }
          block.call(3, 4) if $times > 0
        }
        puts text($buf) if $times == 0
      end
      if ($times += 1) == 1
        $buf.seek(3)
        $buf << [1, 2]
        $again.call
      end
      puts text($buf), message
    RUBY
    # Calling a continuation unwinds the iteration first, even if the continuation re-enters it at once.
    "an each resumed during its iteration" => [<<-'RUBY', [ENDED, "0881828182"]],
      $times = 0
      $buf = PacketBuf.new
      message = worded do
        $buf << OwnEach.new { |block|
          callcc { |k| $again = k }
          block.call(1, 2)
          $again.call if ($times += 1) < 3
        }
      end
      puts message, text($buf)
    RUBY
    "the surrounding Array is resumed" => [<<-'RUBY', ["0a810a8008090b840b" + "090b840b" * 3]],
      $times = 0
      $buf = PacketBuf.new
      $buf << [1, [0, OwnEach.new { callcc { |k| $again = k } }], 4]
      $again.call if ($times += 1) < 4
      puts text($buf)
    RUBY
    "the surrounding Hash is resumed" => [<<-'RUBY', ["08810809838409" + "09838409" * 3]],
      $times = 0
      $buf = PacketBuf.new
      $buf << { 1 => OwnEach.new { callcc { |k| $again = k } }, 3 => 4 }
      $again.call if ($times += 1) < 4
      puts text($buf)
    RUBY
    "the storage moves before it is resumed" => [<<-'RUBY', ["true"]],
      $times = 0
      $buf = PacketBuf.new
      $buf << [OwnEach.new { callcc { |k| $again = k } }, "end".b]
      $buf.write_raw("x" * 1_000_000)
      GC.start
      $again.call if ($times += 1) < 5
      rest = "0905" + "03656e640b" + "78" * 1_000_000
      puts text($buf) == "0a08" + rest * 5
    RUBY
    "only the continuation references the buffer" => [<<-'RUBY', ["5", "true"]],
      $times = 0
      def write_somewhere
        PacketBuf.new << [OwnEach.new { callcc { |k| $again = k } }, "end" * 1000]
        nil
      end
      def overwrite_stack(n)
        n == 0 ? GC.start : overwrite_stack(n - 1)
      end
      write_somewhere
      overwrite_stack(200)
      others = Array.new(50) { PacketBuf.new << "x" * 50_000 }
      $again.call if ($times += 1) < 5
      puts $times, others.all? { |buf| buf.pos == 50_004 }
    RUBY
    "a failure is raised again" => [<<-'RUBY', [UNSUPPORTED, ENDED, ENDED, "0881"]],
      $times = 0
      $buf = PacketBuf.new
      message = worded do
        $buf << OwnEach.new { |block|
          callcc { |k| $again = k }
          block.call(1, Object.new)
        }
      end
      puts message
      $again.call if ($times += 1) < 3
      puts text($buf)
    RUBY
    "a failure in a key is raised again" => [<<-'RUBY', ["true"] * 4],
      $times = 0
      $buf = PacketBuf.new
      key = OwnEach.new { callcc { |k| $again = k }; raise "number #{$times}" }
      message = worded { $buf << { key => 1 } }
      puts message == "number #{$times}"
      $again.call if ($times += 1) < 4
    RUBY
    "the conversion of maxdepth is resumed" => [<<-'RUBY', ["0a810a820b0b" * 3] + ["[1, [2]]"] * 3],
      class Depth
        def to_int
          callcc { |k| $again = k }
          64
        end
      end
      $times = 0
      $buf = PacketBuf.new << [1, [2]]
      $buf.maxdepth = Depth.new
      $other = PacketBuf.new
      $buf.seek(0).copy_object($other)
      $buf.seek(0)
      $again.call if ($times += 1) < 3
      puts text($other)
      $times = 0
      value = $buf.seek(0).extract_object
      p value
      $buf.seek(0)
      $again.call if ($times += 1) < 3
    RUBY
    "an each in a fiber that has ended" => [<<-'RUBY', ["refused"]]
      Fiber.new { PacketBuf.new << OwnEach.new { callcc { |k| $again = k } } }.resume
      begin
        $again.call
      rescue RuntimeError, FiberError
        puts "refused"
      end
    RUBY
  }.freeze

  # These lead back into the iteration over a Hash.
  HASHES = ["an each resumed during its iteration", "the surrounding Hash is resumed",
            "a failure in a key is raised again"].freeze

  PROGRAMS.each do |name, (code, lines)|
    define_method("test_#{name.tr(" ", "_")}") do
      skip "this Ruby resumes no iteration over a Hash" if HASHES.include?(name) && !hashes_can_be_resumed?
      assert_equal lines, run_ruby(START + code, "-W0", OwnEach::OPTION).split("\n")
    end
  end
end
