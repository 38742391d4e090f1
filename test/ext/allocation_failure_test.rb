# frozen_string_literal: true

require "fileutils"
require "shellwords"
require "tmpdir"
require_relative "helper"
require_relative "ruby_process"

# Fails each native allocation of each method in turn: the first, then the second, and so on. The object must stay
# usable, and no memory may leak.
class AllocationFailureTest < ExtTest
  include RubyProcess

  ROOT = File.expand_path("../..", __dir__)
  NO_MEMORY = "C++ exception: std::bad_alloc"

  # The library for LD_PRELOAD, compiled once for all tests.
  def self.allocator
    @allocator ||= begin
      folder = Dir.mktmpdir("vorn")
      Minitest.after_run { FileUtils.rm_rf(folder) }
      library = File.join(folder, "failing_allocator.#{RbConfig::CONFIG["DLEXT"]}")
      includes = %w[rubyhdrdir rubyarchhdrdir].map { |dir| "-isystem #{Shellwords.escape(RbConfig::CONFIG[dir])}" }
      sources = %w[failing_allocator.cc allocations.cc].map do |name|
        Shellwords.escape(File.join(ROOT, "test/support", name))
      end
      system("#{ENV["CXX"] || "g++"} -std=c++17 -Wno-register -shared -fPIC -Wl,-z,lazy -I#{Shellwords.escape(ROOT)} " \
             "#{includes.join(" ")} #{sources.join(" ")} -o #{Shellwords.escape(library)}") or raise "no #{library}"
      library
    end
  end

  def setup
    skip_under_sanitizers
  end

  def with_allocator(code)
    library = self.class.allocator
    preloaded = ENV["LD_PRELOAD"]
    ENV["LD_PRELOAD"] = library
    run_ruby(HARNESS + code, "-r#{library}")
  ensure
    ENV["LD_PRELOAD"] = preloaded
  end

  HARNESS = <<-'RUBY'
    def failure
      yield
      nil
    rescue RuntimeError => e
      e.message
    end

    # Fails each allocation of `work` in turn, with a fresh object of `setup` each time, and prints the error texts. A
    # failure must not change the object's `state`, and the object must stay usable.
    def fail_each(name, setup, state, work)
      expected = work.call(setup.call)
      texts = []
      (1..50).each do |n|
        object = setup.call
        before = state.call(object)
        FailingAllocator.arm(n)
        text = failure { work.call(object) }
        break unless FailingAllocator.disarm
        texts << text
        abort "#{name}: changed by failure #{n}" unless state.call(object) == before
        abort "#{name}: unusable after failure #{n}" unless work.call(object) == expected
      end
      puts "#{name}: #{texts.inspect}"
    end

    def bytes(buf)
      pos = buf.pos
      content = buf.seek(buf.payload_size).to_str
      [pos, content]
    ensure
      buf.pos = pos
    end
  RUBY

  def assert_fails(expected, code)
    assert_equal expected.map { |name, texts| "#{name}: #{texts.inspect}\n" }.join, with_allocator(code)
  end

  def test_new_objects
    classes = %w[PacketBuf PacketFrameIn PacketFrameOut]
    # They have no memory of their own before something is written.
    assert_fails classes.map { |name| [name, ["failed newing #{name}"]] }, <<-'RUBY'
      [PacketBuf, PacketFrameIn, PacketFrameOut].each do |c|
        fail_each(c.name[/\w+\z/], -> {}, ->(_) {}, ->(_) { c.new.maxdepth })
      end
    RUBY
  end

  # ObjectSpace finds the object whose native one could not be made. Each method refuses it before it runs Ruby code.
  def test_objects_without_their_native_object
    assert_equal "PacketBuf\nPacketFrameIn\nPacketFrameOut\n", with_allocator(<<-'RUBY')
      GC.disable # nothing else refers to it
      hostile = Object.new
      def hostile.to_int
        abort "converted"
      end
      other = PacketBuf.new << 1
      # They convert nothing, and know no native object.
      accessors = [:initialize, :maxdepth, :maxdepth=, :preserve_symbols_on_extract, :preserve_symbols_on_extract=]
      calls = { assemble: ["x", hostile], copy_object: [other] }
      [PacketBuf, PacketFrameIn, PacketFrameOut].each do |c|
        FailingAllocator.arm(1)
        failure { c.new }
        FailingAllocator.disarm
        void = ObjectSpace.each_object(c).find { |it| failure { it.reset } } or abort "none left"
        void.maxdepth = hostile
        methods = c.ancestors.take_while { |it| it != Object }.flat_map { |it| it.instance_methods(false) }.uniq
        (methods - accessors).each do |name|
          arguments = calls.fetch(name) { [hostile] * c.instance_method(name).arity }
          text = failure { void.__send__(name, *arguments) }
          abort "#{c}##{name}: #{text}" unless text == "NULL object DATA pointer, wanted PacketBuf"
        end
        if [PacketBuf, PacketFrameOut].include?(c)
          other.maxdepth = hostile
          text = failure { other.copy_object(void) }
          abort "copy_object(#{c}): #{text}" unless text == "NULL object DATA pointer, wanted PacketBuf"
          other.maxdepth = 64
        end
        puts c.name[/\w+\z/]
      end
    RUBY
  end

  # A failing write keeps what it has already written. Each value here fails at its first byte, so nothing changes.
  def test_writing
    expected = %w[write_raw gap string symbol array integers hash copy_object].map { |name| [name, [NO_MEMORY]] }
    assert_fails expected, <<-'RUBY'
      small = -> { PacketBuf.new << 1 }
      write = ->(name, setup, &code) { fail_each(name, setup, ->(b) { bytes(b) }, ->(b) { code.call(b); bytes(b) }) }
      again = ->(b) { b.seek(1) }
      write.call("write_raw", small) { |b| b.write_raw("x" * 100_000) }
      write.call("gap", -> { small.call.seek(100_000) }) { |b| b.write_raw("x") }
      write.call("string", small) { |b| b << "x" * 100_000 }
      write.call("symbol", small) { |b| b << ("x" * 100_000).to_sym }
      full = -> { PacketBuf.new.write_raw("x" * 65_536) }
      write.call("array", full) { |b| b << [] }
      write.call("integers", full) { |b| b << 1 }
      write.call("hash", full) { |b| b << {} }
      value = PacketBuf.new << "x" * 100_000
      write.call("copy_object", small) { |b| value.seek(0).copy_object(b) }
    RUBY
  end

  # A failing write keeps the members before the one that failed, and the position behind them.
  def test_writing_in_the_middle_of_a_value
    assert_equal "true\n" * 6, with_allocator(<<-'RUBY')
      class OwnEach < Hash
        def each
          yield "key", "x" * 100_000
        end
      end
      [["a", "x" * 100_000], { "key" => "x" * 100_000 }, OwnEach.new].each do |value|
        buf = PacketBuf.new.write_raw("abc")
        FailingAllocator.arm(1)
        text = failure { buf << value }
        puts FailingAllocator.disarm && text == "C++ exception: std::bad_alloc"
        whole = "abc" + PacketBuf.new.write_object(value).to_str
        puts buf.pos > 6 && buf.to_str == whole[0, buf.pos] && (buf.seek(3) << value).to_str == whole
      end
    RUBY
  end

  # A new buffer can do without the memory that only makes it fast.
  def test_writing_to_a_new_buffer
    expected = [[nil, nil], [nil, NO_MEMORY, nil], [nil, NO_MEMORY, NO_MEMORY]]
    assert_equal expected.map { |texts| "#{texts.inspect}\n" }.join, with_allocator(<<-'RUBY')
      [100, 100_000, 1_000_000].each do |n|
        value = ["x" * n]
        texts = []
        (1..9).each do |nth|
          PacketBuf.new << "x" * 300_000  # keeps the thread's scratch memory
          whole = PacketBuf.new.write_raw("a").write_object(value).to_str[1..-1]
          buf = PacketBuf.new
          FailingAllocator.arm(nth)
          text = failure { buf << value }
          break unless FailingAllocator.disarm
          texts << text
          abort "#{n}, #{nth}" unless buf.to_str == whole[0, buf.pos] && (text || buf.pos == whole.bytesize)
          abort "unusable" unless (buf.reset << value).to_str == whole
        end
        p texts
      end
    RUBY
  end

  # The checking pass stores how many members each array has, on the heap beyond the first 32 arrays.
  def test_reading
    output = with_allocator(<<-'RUBY')
      arrays = PacketBuf.new.write_object([[]] * 2000).to_str
      setup = -> { PacketBuf.new.write_raw(arrays).seek(0) }
      bytes_only = ->(b) { bytes(b)[1] }
      fail_each("extract_object", setup, bytes_only, ->(b) { b.seek(0).extract_object })
      fail_each("copy_object", setup, bytes_only, ->(b) { b.seek(0).copy_object(PacketBuf.new); b.pos })
    RUBY
    texts = output.lines.map { |line| line.split(": ", 2) }
    assert_equal %w[extract_object copy_object], texts.map(&:first)
    texts.each do |name, list|
      failures = list.scan(/"([^"]*)"/).flatten
      assert_operator failures.size, :>=, 7, name
      # The work of copy_object also allocates its destination.
      assert_equal [NO_MEMORY], failures.reject { |text| text =~ /newing PacketBuf\z/ }.uniq, name
    end
  end

  def test_frames
    assert_fails [["assemble", [NO_MEMORY]], ["storage used again", []]], <<-'RUBY'
      out = PacketFrameOut.new
      out.reset
      out << "x" * 100_000
      stream = out.compute_frame_header.to_str
      state = ->(frame) { frame.have_complete_frame? }
      receive = lambda do |frame|
        offset = 0
        offset += frame.assemble(stream, offset) while offset < stream.bytesize
        frame.seek_payload_start.extract_object.bytesize
      end
      header = lambda do |frame|
        frame.reset
        receive.call(frame)
      end
      fail_each("assemble", -> { PacketFrameIn.new }, state, header)
      large = PacketFrameIn.new
      header.call(large)
      fail_each("storage used again", -> { large.reset }, state, header)
    RUBY
  end

  # Building an error's text allocates memory; if that fails, std::bad_alloc is raised instead.
  def test_failing_errors
    expected = [["oversize", [NO_MEMORY]], ["no room for the header", [NO_MEMORY]]]
    assert_equal expected.map(&:first), with_allocator(<<-'RUBY').lines.map { |line| line[/\A[^:]*/] }
      frame = -> { PacketFrameOut.new }
      fail_each("oversize", -> { f = frame.call; f.use_12byte_header = true; f.seek(16_777_300) }, ->(f) { f.pos },
                ->(f) { failure { f.compute_frame_header }[/oversize|bad_alloc/].size })
      fail_each("no room for the header", frame, ->(f) { f.pos }, ->(f) { failure { f.compute_frame_header } && 1 })
    RUBY
  end

  def test_exception_that_is_not_a_standard_exception
    assert_equal "true unknown C++ exception in vorn-rpc-ext, true\n", with_allocator(<<-'RUBY')
      buf = PacketBuf.new << 1
      FailingAllocator.arm_unknown(1)
      text = failure { buf << "x" * 100_000 }
      puts "#{FailingAllocator.disarm} #{text}, #{(buf.reset << 1).to_str == "\x81".b}"
    RUBY
  end

  def test_nothing_leaks
    lost = with_allocator(<<-'RUBY').to_i
      arrays = PacketBuf.new.write_object([[]] * 2000).to_str
      frame = PacketFrameOut.new
      frame.reset
      stream = frame.write_raw("x" * 100_000).compute_frame_header.to_str
      works = [-> { PacketBuf.new }, -> { PacketFrameIn.new }, -> { PacketFrameOut.new },
               -> { PacketBuf.new << ["a", "x" * 100_000] },
               -> { PacketBuf.new.write_raw(arrays).seek(0).extract_object },
               -> { PacketFrameIn.new.assemble(stream, 0) }, -> { PacketFrameOut.new.compute_frame_header }]
      run = lambda do
        works.each do |work|
          (1..20).each do |n|
            FailingAllocator.arm(n)
            failure(&work)
            FailingAllocator.disarm
          end
        end
      end
      collect = -> { 4.times { GC.start }; FailingAllocator.live }
      run.call
      before = collect.call
      20.times { run.call }
      print collect.call - before
    RUBY
    # Conservative marking of the machine stack may keep a few objects of three blocks each; a leak in 2,800 operations
    # would show thousands.
    assert_operator lost, :<=, 60
  end
end
