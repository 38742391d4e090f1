# frozen_string_literal: true

require "fiber"
require_relative "helper"
require_relative "ruby_process"

# Switches between threads, fibers, processes and Ractors in the middle of encoding and decoding.
class ConcurrencyTest < ExtTest
  include RubyProcess

  # A Hash whose iteration switches to another thread or fiber before each pair.
  class Switching < Hash
    def self.of(hash, &switch)
      new.merge!(hash).tap { |own| own.instance_variable_set(:@switch, switch) }
    end

    def each
      super do |key, value|
        @switch.call
        yield key, value
      end
    end
  end

  PAIRS = { "id" => 4711, "list" => [1, 2.5, nil], "nested" => { "key" => "value" } }.freeze

  def expected
    PacketBuf.new.write_object(PAIRS).to_str
  end

  def test_threads_with_buffers_of_their_own
    written = Array.new(4) do
      Thread.new do
        buf = PacketBuf.new
        Array.new(50) { (buf.reset << Switching.of(PAIRS) { Thread.pass }).to_str }
      end
    end
    assert_equal [expected], written.flat_map(&:value).uniq
  end

  def test_threads_that_read_frames
    out = PacketFrameOut.new
    out.reset
    out << PAIRS
    stream = out.compute_frame_header.to_str
    read = Array.new(4) do
      Thread.new do
        frame = PacketFrameIn.new
        Array.new(50) do
          frame.reset
          stream.each_char { |byte| frame.assemble(byte, 0); Thread.pass if byte == "\x07" }
          frame.seek_payload_start.extract_object
        end
      end
    end
    assert_equal [PAIRS], read.flat_map(&:value).uniq
  end

  def test_fibers_that_take_turns
    written = []
    fibers = Array.new(3) do
      Fiber.new { written << (PacketBuf.new << Switching.of(PAIRS) { Fiber.yield }).to_str }
    end
    4.times { fibers.each { |fiber| fiber.resume if fiber.alive? } }
    assert_equal [expected] * 3, written
  end

  # Each writer continues at the position where the other one stopped.
  def test_a_buffer_shared_by_two_fibers
    buf = PacketBuf.new
    fiber = Fiber.new { buf << Switching.of(1 => 2, 3 => 4) { Fiber.yield } }
    fiber.resume
    buf << 5
    fiber.resume
    buf << [6] * 40_000
    fiber.resume
    assert_equal "08 85 81 82 0a #{'86 ' * 40_000}0b 83 84 09", Hex.encode(buf.to_str)
  end

  def test_a_buffer_shared_by_threads
    buf = PacketBuf.new
    threads = Array.new(4) { |n| Thread.new { 200.times { buf << Switching.of(n => "x" * 200) { Thread.pass } } } }
    threads.each(&:join)
    # The threads' scalars may interleave, but none is torn or lost.
    assert_equal 4 * 200 * (3 + 3 + 200), buf.pos
    assert_equal 4 * 200 * 200, buf.to_str.count("x")
  end

  # Arrays whose `hash` switches fibers: decoding calls it for each key that is an Array.
  SWITCHING_KEYS = <<-'RUBY'
    require "fiber"
    $switch = false
    module Switch
      def hash
        Fiber.yield if $switch
        super
      end
    end
    Array.prepend(Switch)
  RUBY

  # Fibers that read and write the same buffer take turns inside a key's `hash`. Older Rubies refuse to switch fibers
  # there, with a FiberError.
  def test_fibers_that_read_one_buffer
    assert_equal "true\n" * 2, run_ruby(SWITCHING_KEYS + <<-'RUBY')
      value = { [1] => 2, [3] => 4 }
      buf = PacketBuf.new << value
      bytes = buf.to_str
      read = []
      $switch = true
      fibers = Array.new(2) do
        Fiber.new do
          begin
            read << buf.seek(0).extract_object
          rescue FiberError => error
            read << error.class
          end
        end
      end
      10.times do
        fibers.each do |fiber|
          fiber.resume if fiber.alive?
          buf.seek(100).write_raw("more").seek(0).write_raw(bytes)
        end
      end
      $switch = false
      read.each { |outcome| puts [value, FiberError].include?(outcome) }
    RUBY
  end

  # The stack of a fiber that is never resumed is never unwound, so a decode may not rely on unwinding to free memory.
  def test_fibers_abandoned_in_a_key
    skip_without_proc
    skip_under_sanitizers
    assert_operator run_ruby(SWITCHING_KEYS + <<-'RUBY').to_f, :<=, 8.0, "MB"
      arrays = PacketBuf.new.write_object([[[]] * 20_000, { [1] => 2 }]).to_str
      run = lambda do |n|
        $switch = true
        n.times do
          Fiber.new do
            begin
              PacketBuf.new.write_raw(arrays).seek(0).extract_object
            rescue FiberError # older Rubies refuse to switch fibers here
            end
          end.resume
        end
        $switch = false
        4.times { GC.start }
        File.read("/proc/self/status")[/^VmRSS:\s+(\d+) kB/, 1].to_i / 1024.0
      end
      run.call(100)
      before = run.call(100)
      print run.call(200) - before
    RUBY
  end

  def test_fork_in_the_middle_of_messages
    skip "no fork here" unless Process.respond_to?(:fork)
    out = PacketFrameOut.new
    out.reset
    out << "first"
    frame = PacketFrameIn.new
    frame.reset
    whole = PacketFrameOut.new
    whole.reset
    stream = (whole << PAIRS).compute_frame_header.to_str
    frame.assemble(stream[0, stream.bytesize / 2], 0)
    finish = lambda do |name|
      frame.assemble(stream[stream.bytesize / 2..-1], 0)
      [frame.seek_payload_start.extract_object, Hex.encode((out << name).compute_frame_header.to_str)]
    end
    child = in_a_fork { finish.call("child") }
    assert_equal [PAIRS, out_frame("first", "child")], child
    assert_equal [PAIRS, out_frame("first", "parent")], finish.call("parent")
  end

  def test_fork_inside_a_callback
    skip "no fork here" unless Process.respond_to?(:fork)
    child = nil
    buf = PacketBuf.new
    value = Switching.of(1 => 2) { child = in_a_fork { :in_the_child } unless child }
    parent = Process.pid
    written = catch(:child) { (buf << value).to_str }
    assert_equal parent, Process.pid
    assert_equal ["08 81 82 09", :in_the_child], [Hex.encode(written), child]
  end

  # The block's result in a child process.
  def in_a_fork
    reader, writer = IO.pipe.each(&:binmode)
    pid = fork do
      begin
        writer << [yield.inspect].pack("m")
        writer.close
      ensure
        exit!(0)
      end
    end
    writer.close
    text = reader.read.unpack("m")[0].force_encoding("UTF-8")
    Process.wait(pid)
    eval(text) # safe: our own child wrote it
  end

  def out_frame(*values)
    frame = PacketFrameOut.new
    frame.reset
    values.each { |value| frame << value }
    Hex.encode(frame.compute_frame_header.to_str)
  end

  # --- Ractors -------------------------------------------------------------------------------------------

  def ractors(code)
    skip "no Ractor in Ruby #{RUBY_VERSION}" unless defined?(Ractor)
    value_as_in_3_5 = "Ractor.class_eval { alias value take } unless Ractor.method_defined?(:value)"
    run_ruby("#{value_as_in_3_5 if RUBY_VERSION < "3.5"}\n#{code}", "-W:no-experimental")
  end

  def test_ractors_that_encode_and_decode_at_once
    assert_equal "true\n" * 4, ractors(<<-'RUBY')
      Array.new(4) do |n|
        Ractor.new(n) do |number|
          buf = PacketBuf.new
          out = PacketFrameOut.new
          frame = PacketFrameIn.new
          buf.preserve_symbols_on_extract = true
          (0...2_000).all? do |i|
            value = { "ractor" => number, "shared key" => [i, i * 0.5, :"symbol#{i % 7}"],
                      "own key #{number}" => "text" * (i % 50), "key #{i % 300}" => { [i] => nil } }
            out.reset
            stream = (out << value).compute_frame_header.to_str
            frame.reset
            frame.preserve_symbols_on_extract = true
            offset = 0
            offset += frame.assemble(stream, offset) while offset < stream.bytesize
            GC.start(full_mark: i % 400 == 0) if i % 200 == number
            (buf.reset << value).seek(0).extract_object == value && frame.seek_payload_start.extract_object == value
          end
        end
      end.each { |ractor| puts ractor.value }
    RUBY
  end

  # A Ractor's key cache must be freed with the Ractor.
  def test_key_caches_are_freed_with_their_ractors
    kept = ractors(<<-'RUBY').to_i
      200.times do |n|
        Ractor.new(n) do |number|
          50.times do |i|
            (PacketBuf.new << { "ractor #{number} key #{i} ".ljust(100, ".") => 1 }).seek(0).extract_object
          end
          nil
        end.value
      end
      4.times { GC.start }
      print ObjectSpace.each_object(String).count { |string| string =~ /\Aractor \d+ key \d+ \.+\z/ }
    RUBY
    # Conservative marking of the stacks may keep the keys of the last few Ractors, out of 10,000.
    assert_operator kept, :<=, 1000
  end

  def test_buffers_are_not_shared_between_ractors
    assert_equal "true\n", ractors(<<-'RUBY')
      buf = PacketBuf.new
      puts !Ractor.shareable?(buf)
    RUBY
  end
end
