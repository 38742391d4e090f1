# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Leaks, the native memory that the garbage collector is told of, and running out of memory.
class MemoryTest < ExtTest
  include RubyProcess

  MEASURE = STATUS + <<-RUBY
    def megabytes(bytes)
      (bytes / 1_048_576.0).round(1)
    end

    # MB by which the process grows over this many runs of the block, after a warm-up.
    def growth(times)
      run = lambda do |n|
        n.times { |i| yield i }
        GC.start
        status("VmRSS")
      end
      run.call(times / 10)
      before = run.call(times / 10)
      megabytes(run.call(times) - before)
    end

    def failing
      yield
    rescue RuntimeError, RangeError, EncodingError
    else
      abort "did not fail"
    end
  RUBY

  def measure(code)
    skip_without_proc
    skip_under_sanitizers
    run_ruby(MEASURE + code).split.map { |number| Float(number) }
  end

  def assert_grows_little(code)
    growth = measure(code).first
    assert_operator growth, :<=, 5.0, "MB"
  end

  # Storage must be reported once, not by each method that finds it unchanged.
  def test_the_collector_is_told_once
    skip "Ruby #{RUBY_VERSION} does not count native memory" if RUBY_VERSION < "2.4"
    told = run_ruby(<<-'RUBY').split.map { |number| Integer(number) }
      GC.start
      GC.disable
      count = -> { GC.stat(:malloc_increase_bytes) }
      buf = PacketBuf.new
      bytes = "x" * 4_000_000
      before = count.call
      buf.write_raw(bytes)
      first = count.call - before
      before = count.call
      20.times { buf.seek(1_000_000) << 1 }
      print first, " ", count.call - before
    RUBY
    assert_operator told[0], :>=, 3_900_000
    assert_operator told[1], :<=, 200_000
  end

  # The memory of freed buffers must be subtracted, or the collector's count would trigger full collections over and
  # over. (Before Ruby 2.4, where the extension counts, collections would become too rare instead: its threshold follows
  # the memory that it believes to be in use.)
  def test_freed_storage_is_subtracted
    skip_under_sanitizers
    full, all = run_ruby(<<-'RUBY').split.map { |number| Integer(number) }
      bytes = "x" * 100_000
      counts = -> { [GC.stat(:major_gc_count), GC.count] }
      3.times { GC.start }
      before = counts.call
      20_000.times { PacketBuf.new.write_raw(bytes) }
      print counts.call.zip(before).map { |now, then_| now - then_ }.join(" ")
    RUBY
    assert_operator full, :<=, 5, "full collections" if RUBY_VERSION >= "2.4"
    assert_operator all, :>=, 40, "collections"
  end

  # Buffers that survive a collection must raise the threshold, or each new buffer would trigger a collection.
  def test_many_live_buffers_cost_no_collection_for_each_new_one
    skip_under_sanitizers
    collections = run_ruby(<<-'RUBY').to_i
      live = Array.new(600) { PacketBuf.new }
      before = GC.count
      2_000.times { PacketBuf.new }
      print GC.count - before
      live.clear
    RUBY
    assert_operator collections, :<=, 20
  end

  # Before Ruby 2.4 the extension's own threshold rises by what survived: 300 MB of live buffers allow another 300 MB
  # without a collection.
  def test_collections_become_rarer_with_more_live_buffers
    skip "Ruby #{RUBY_VERSION} has its own thresholds" if RUBY_VERSION >= "2.4"
    skip_under_sanitizers
    collections = run_ruby(<<-'RUBY').to_i
      live = Array.new(5_000) { PacketBuf.new }
      before = GC.count
      5_000.times { PacketBuf.new }
      print GC.count - before
      live.clear
    RUBY
    assert_operator collections, :<=, 5
  end

  # The key cache must not keep long keys: whoever sends messages could fill the memory with them.
  def test_long_keys_are_not_cached
    kept = run_ruby(<<-'RUBY').to_i
      def read(n)
        n.times { |i| (PacketBuf.new << { "#{i} " * 100_000 => i }).seek(0).extract_object }
        nil
      end
      read(200)
      4.times { GC.start }
      print ObjectSpace.each_object(String).count { |string| string.bytesize > 100_000 }
    RUBY
    assert_operator kept, :<=, 5
  end

  # --- leaks ---------------------------------------------------------------------------------------------

  def test_failing_encodes
    assert_grows_little <<-RUBY
      class Failing < Hash
        def each; yield 1, Object.new; end
      end
      deep = 64.times.inject(1) { |inner, _| [inner] }
      values = [[1, Object.new], [2**64], deep, Failing.new, { 1 => Failing.new }, { [1] => 1..2 }]
      buf = PacketBuf.new
      p growth(100_000) { |i| failing { buf.reset << values[i % values.size] } }
    RUBY
  end

  def test_failing_decodes
    assert_grows_little <<-RUBY
      bytes = ["", "\\xa0", "\\x07\\x05ab", "\\x03", "\\x04", "\\x08\\x81\\x82", "\\x0a\\x81", "\\x7f",
               "\\x0a" * 65, "\\x07", "\\x0a\\x07\\x01a\\x06\\x01\\xff\\x0b", "\\x0a" + "\\x0a\\x0b" * 100]
      bufs = bytes.map do |b|
        buf = PacketBuf.new.write_raw(b)
        buf.preserve_symbols_on_extract = true
        buf
      end
      p growth(100_000) { |i| failing { bufs[i % bufs.size].seek(0).extract_object } }
    RUBY
  end

  # A key's `hash` that raises leaves the building pass by longjmp, while it holds native memory.
  def test_decodes_that_ruby_code_leaves
    assert_grows_little <<-RUBY
      class Array
        remove_method :hash
        def hash; raise "no"; end
      end
      buf = PacketBuf.new.write_raw("\\x0a" + "\\x0a\\x0b" * 400 + "\\x08\\x0a\\x0b\\x81\\x09" + "\\x0b")
      p growth(10_000) { failing { buf.seek(0).extract_object } }
    RUBY
  end

  def test_failing_native_work
    assert_grows_little <<-RUBY
      out, buf = PacketFrameOut.new, PacketBuf.new << 1
      into = PacketFrameIn.new.reset
      into.assemble("\\xa5\\x01\\0\\0\\0\\0\\0\\x02a", 0)
      work = [-> { out.compute_frame_header }, -> { out.seek(2**32 - 1).compute_frame_header; },
              -> { into.seek(2).assemble("b", 0) }, -> { buf.copy_object(buf) }]
      p growth(50_000) { |i| failing { out.seek(0); work[i % work.size].call } }
    RUBY
  end

  def test_own_each
    assert_grows_little <<-RUBY
      class Own < Hash
        def each; yield 1, 2; end
      end
      buf, own = PacketBuf.new, Own.new
      p growth(100_000) { buf.reset << own }
    RUBY
  end

  def test_symbols_that_arrive_are_collected
    skip "symbols are forever before Ruby 2.2" if RUBY_VERSION < "2.2"
    assert_grows_little <<-RUBY
      buf = PacketBuf.new
      buf.preserve_symbols_on_extract = true
      p growth(50_000) { |i| buf.reset << "sym \#{i}".to_sym; buf.seek(0).extract_object }
    RUBY
  end

  # --- native memory triggers collections ----------------------------------------------------------------

  LIMIT = 200.0

  # Beyond what the interpreter takes for itself, as for compiled code.
  def assert_stays_small(code)
    peak = measure("before = status('VmRSS')\n#{code}\np megabytes(status('VmHWM') - before)").first
    assert_operator peak, :<, LIMIT, "MB at the peak"
  end

  def test_short_lived_buffers
    assert_stays_small "100_000.times { PacketBuf.new << 1 }"
  end

  def test_short_lived_frames
    assert_stays_small "100_000.times { PacketFrameOut.new.reset << 1; PacketFrameIn.new.reset.assemble('x', 0) }"
  end

  def test_short_lived_buffers_that_are_full
    assert_stays_small "bytes = 'x' * 65_000\n10_000.times { PacketBuf.new.write_raw(bytes) }"
  end

  GROWING = {
    write_raw: "PacketBuf.new.write_raw(BYTES)", write_object: "PacketBuf.new << BYTES",
    write_object_that_fails: "begin; PacketBuf.new << [BYTES, Object.new]; rescue RuntimeError; end",
    copy_object: "FROM.seek(0).copy_object(PacketBuf.new)", assemble: "PacketFrameIn.new.reset.assemble(FRAME, 0)"
  }.freeze

  GROWING.each do |name, code|
    define_method("test_short_lived_buffers_that_grow_by_#{name}") do
      assert_stays_small <<-RUBY
        BYTES = "x" * 4_000_000
        FROM = PacketBuf.new << BYTES
        FRAME = (PacketFrameOut.new.reset << BYTES).compute_frame_header.to_str
        200.times { #{code} }
      RUBY
    end
  end

  # --- out of memory -------------------------------------------------------------------------------------

  NO_MEMORY = <<-RUBY
    def no_memory
      begin
        yield
      rescue RuntimeError => error
        return if error.message.start_with?("C++ exception: ")
        abort "raised \#{error.inspect}"
      end
      abort "did not run out of memory at line \#{caller.first}"
    end

    def leave(megabytes)
      limit = status("VmSize") + megabytes * 1_048_576
      Process.setrlimit(Process::RLIMIT_AS, limit)
    end
  RUBY

  def without_memory(code)
    skip_without_proc
    skip_under_sanitizers
    skip_without_limits
    assert_equal "done\n", run_ruby("#{MEASURE}#{NO_MEMORY}#{code}\nputs :done")
  end

  def test_writing_far_behind_the_end
    without_memory <<-RUBY
      buf = PacketBuf.new << "kept"
      leave(300)
      [nil, true, 1, 2**62, 1.5, "text", "bytes".b, :symbol, [], [1], {}, { 1 => 2 }].each do |value|
        [2**32 - 1, 2**31].each do |pos|
          no_memory { buf.seek(pos) << value }
          abort "moved to \#{buf.pos}" unless buf.pos == pos
        end
      end
      no_memory { buf.seek(2**32 - 1).write_raw("x") }
      own = Class.new(Hash) { def each; yield 1, 2; end }.new
      no_memory { buf.seek(2**32 - 1) << own }
      moving = Class.new(Hash) { define_method(:each) { |&block| buf.seek(2**32 - 1); block.call(1, 2) } }.new
      no_memory { buf.seek(0) << moving }
      abort "lost" unless buf.payload_size == 6 && buf.seek(6).to_str == "\\x08\\x04kept".b
      frame = PacketFrameOut.new
      no_memory { frame.seek(2**32 - 1) << 1 }
      frame.reset << 1
      abort "frame" unless frame.compute_frame_header.to_str.size == 9
    RUBY
  end

  def test_copying_far_behind_the_end
    without_memory <<-RUBY
      buf, to = PacketBuf.new << "kept", PacketBuf.new
      leave(300)
      no_memory { buf.seek(0).copy_object(to.seek(2**32 - 1)) }
      abort "positions" unless buf.pos == 6 && to.pos == 2**32 - 1
      abort "size" unless to.payload_size == 0
      buf.seek(0).copy_object(to.seek(0))
      abort "unusable" unless to.seek(0).extract_object == "kept"
    RUBY
  end

  def test_frame_that_announces_more_than_there_is
    without_memory <<-RUBY
      frame = PacketFrameIn.new.reset
      leave(300)
      header = "\\xa5\\x01\\x00\\x07\\x7f\\xff\\xff\\xff"
      no_memory { frame.assemble(header, 0) }
      no_memory { frame.assemble("more", 0) }
      abort "complete" if frame.have_complete_frame?
      frame.reset
      consumed = frame.assemble("\\xa5\\x01\\0\\x07\\0\\0\\0\\x01\\x81", 0)
      abort "unusable" unless consumed == 9 && frame.have_complete_frame?
      abort "value" unless frame.seek_payload_start.extract_object == 1
    RUBY
  end

  # The checking pass allocates memory only for deep nesting and for many arrays.
  def test_checking_without_memory
    without_memory <<-RUBY
      deep = PacketBuf.new.write_raw("\\x0a" * 30_000_000).seek(0)
      wide = PacketBuf.new.write_raw("\\x0a" + "\\x0a\\x0b" * 40_000_000).seek(0)
      to = PacketBuf.new
      leave(60)
      deep.maxdepth = 2**31 - 1
      no_memory { deep.extract_object }
      no_memory { deep.seek(0).copy_object(to) }
      no_memory { wide.extract_object }
      abort "unusable" unless deep.seek(0).write_raw("\\x81").seek(0).extract_object == 1
    RUBY
  end
end
