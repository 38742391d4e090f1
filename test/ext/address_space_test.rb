# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Runs each method under RLIMIT_AS: with less and less room for the heap to grow, then with less and less free memory
# inside the heap. The method must return its result or raise an error of Ruby's or ours, and the object must stay
# usable. Where Ruby itself gives up it prints "[FATAL] failed to allocate memory" and exits; nothing else may end the
# process. Ruby 3.3 may instead loop for ever in a jump to itself, in its own library: there, and only there, a process
# that is killed after 3 s of CPU time counts as Ruby's end too.
#
# VORN_LIMITS sets how many limits of each kind are tried (default: 2).
class AddressSpaceTest < ExtTest
  include RubyProcess

  LIMITS = Integer(ENV.fetch("VORN_LIMITS", "2"))

  # [setup, work]: setup runs without a limit; work runs before, under and after the limit, with the same result.
  WORKS = <<-'RUBY'
    text = "x" * 3_000_000
    words = Array.new(30_000) { |i| "word #{i}" }
    nested = Array.new(20_000) { |i| [i, { i => [] }] }
    keys = Hash[words.each_with_index.to_a]
    own_each = Class.new(Hash) { def each; 20_000.times { |i| yield [i], "value" }; end }.new
    encoded = ->(value) { PacketBuf.new.write_object(value).to_str }
    framed = ->(bytes) { PacketFrameOut.new.reset.write_raw(bytes).compute_frame_header.to_str }
    empty = -> { PacketBuf.new }
    holding = ->(bytes) { -> { PacketBuf.new.write_raw(bytes).seek(0) } }
    names = holding.call(encoded.call(words.map(&:to_sym)))
    deep = 60.times.inject(words) { |inner, _| [inner] }
    stream = framed.call(text)
    written = ->(buf) { [buf.pos, buf.to_str.hash] }
    extract = ->(buf) { buf.seek(0).extract_object.hash }

    WORKS = {
      "PacketBuf.new" => [-> {}, ->(_) { Array.new(200) { PacketBuf.new }.size }],
      "PacketFrameIn.new" => [-> {}, ->(_) { Array.new(200) { PacketFrameIn.new.reset }.size }],
      "PacketFrameOut.new" => [-> {}, ->(_) { Array.new(200) { PacketFrameOut.new.reset }.size }],
      "small methods" => [-> { PacketFrameOut.new }, lambda do |out|
        out.use_12byte_header = out.using_12byte_header?
        out.reset.next_seq = out.next_seq
        [out.inc_seq.pos, out.payload_size, out.index_within_payload?(3), out.seek_payload_start.pos, out.maxdepth,
         out.preserve_symbols_on_extract, out.configured_header_len, out.configured_max_data_len].size
      end],
      "write_raw" => [empty, ->(buf) { written.call(buf.seek(0).write_raw(text)) }],
      "write_raw far behind the end" => [empty, ->(buf) { buf.seek(20_000_000).write_raw("x").pos }],
      "write_object, string" => [empty, ->(buf) { written.call(buf.seek(0).write_object(text)) }],
      "write_object, strings" => [empty, ->(buf) { written.call(buf.seek(0).write_object(words)) }],
      "write_object, integers" => [empty, ->(buf) { written.call(buf.seek(0).write_object([*0..200_000])) }],
      "write_object, nested" => [empty, ->(buf) { written.call(buf.seek(0).write_object(nested)) }],
      "write_object, hash" => [empty, ->(buf) { written.call(buf.seek(0).write_object(keys)) }],
      "write_object, own each" => [empty, ->(buf) { written.call(buf.seek(0).write_object(own_each)) }],
      "write_object, symbol" => [empty, ->(buf) { written.call(buf.seek(0).write_object(text.to_sym)) }],
      "write_object, unsupported" => [empty, lambda do |buf|
        begin
          buf.seek(0) << [text, Object.new]
        rescue RuntimeError => e
          raise unless e.message.start_with?("serialize_rbobj")
          1
        end
      end],
      "extract_object, string" => [holding.call(encoded.call(text)), extract],
      "extract_object, strings" => [holding.call(encoded.call(words)), extract],
      "extract_object, nested" => [holding.call(encoded.call(nested)), extract],
      "extract_object, keys" => [holding.call(encoded.call(keys)), extract],
      "extract_object, arrays" => [holding.call(encoded.call([[]] * 200_000)), extract],
      "extract_object, hashes" => [holding.call(encoded.call([{}] * 50_000)), extract],
      "extract_object, deep" => [holding.call(encoded.call(deep)), extract],
      "extract_object, arrays as keys" => [holding.call(encoded.call(Hash[nested.map { |n| [n, 1] }])), extract],
      "extract_object, symbols" => [-> { names.call.tap { |buf| buf.preserve_symbols_on_extract = true } },
                                    ->(buf) { buf.seek(0).extract_object.size }],
      "extract_object, fault" => [holding.call("\x0A".b + "\x0A\x0B".b * 200_000), lambda do |buf|
        begin
          buf.seek(0).extract_object
        rescue RuntimeError => e
          raise unless e.message.start_with?("decode_")
          1
        end
      end],
      "copy_object" => [holding.call(encoded.call(nested + [text])), lambda do |buf|
        to = PacketBuf.new
        buf.seek(0).copy_object(to)
        written.call(to)
      end],
      "to_str" => [-> { PacketBuf.new.write_raw(text) }, ->(buf) { buf.to_str.bytesize }],
      "assemble" => [-> { PacketFrameIn.new }, lambda do |frame|
        [frame.reset.assemble(stream, 0), frame.have_complete_frame?]
      end],
      "assemble in pieces" => [-> { PacketFrameIn.new }, lambda do |frame|
        frame.reset
        offset = 0
        offset += frame.assemble(stream.byteslice(0, offset + 100_000), offset) until offset == stream.bytesize
        frame.seek_payload_start.payload_size
      end],
      "compute_frame_header" => [-> { PacketFrameOut.new }, lambda do |out|
        out.reset.write_raw(text).compute_frame_header.pos
      end],
      "dup" => [-> { PacketBuf.new << text }, lambda do |buf|
        begin
          buf.dup.pos
        rescue TypeError
          1
        end
      end]
    }.freeze
  RUBY

  HARNESS = STATUS + <<-'RUBY'
    def limit(bytes)
      Process.setrlimit(Process::RLIMIT_AS, bytes, Process::RLIM_INFINITY)
    end

    # A machine stack that cannot grow kills the process without an exception, so it is grown before the limit is set.
    def grow_stack(levels)
      levels.zero? ? 0 : [levels].each { |n| return grow_stack(n - 1) }
    end

    # Fills the heap's free blocks down to this size. Not with Strings: Ruby 2.7 exits at its second NoMemoryError, and
    # Ruby 3.3 may never return from one.
    def use_up(smallest, kept)
      size = 1 << 24
      while size >= smallest
        begin
          kept << PacketBuf.new.seek(size).write_raw("x")
        rescue RuntimeError
          size /= 2
        end
      end
    end

    # "fine", or the name of the error. Any error but a lack of memory is "wrong".
    def attempt(setup, work, room, smallest)
      object = setup.call
      expected = work.call(setup.call)
      kept = Array.new(10_000)
      kept.clear
      grow_stack(2_000)
      limit(status("VmSize") + room)
      use_up(smallest, kept) if smallest
      result = begin
        work.call(object) == expected ? "fine" : "wrong"
      rescue NoMemoryError
        "NoMemoryError"
      rescue SystemStackError
        "SystemStackError"
      rescue RuntimeError => e
        ours = /\A(C\+\+ exception: std::bad_alloc|(failed|exception) newing \w+)\z/
        e.message =~ ours ? "our error" : "wrong: #{e.message}"
      end
      limit(Process::RLIM_INFINITY)
      kept.clear
      # The object keeps what the failed attempt left, and the work starts over in it.
      usable = work.call(object) == expected
      usable ? result : "unusable after #{result}"
    end

    def outcome(setup, work, room, smallest)
      reader, writer = IO.pipe
      said, says = IO.pipe
      child = fork do
        Process.setrlimit(Process::RLIMIT_CPU, 3)
        $stderr.reopen(says)
        writer.write attempt(setup, work, room, smallest)
        writer.close
        exit!(true)
      end
      writer.close
      says.close
      text, errors = reader.read, said.read
      status = Process.wait2(child)[1]
      return text if status.success?
      return "Ruby's end" if RUBY_VERSION >= "3.3" && status.termsig == Signal.list["KILL"]
      return "Ruby's end" if status.exitstatus == 1 && errors =~ /failed to allocate memory/
      "#{status}: #{errors.b[0, 4000]}"
    ensure
      reader.close
      said.close
    end

    GC.start
    counts = Hash.new(0)
    WORKS.each do |name, (setup, work)|
      rooms = Array.new(LIMITS) { |n| [(12 << 20) * (LIMITS - 1 - n) / LIMITS, nil] }
      fills = Array.new(LIMITS) { |n| [0, 1 << (22 - 8 * n / LIMITS)] }
      (rooms + fills).each do |room, smallest|
        became = outcome(setup, work, room, smallest)
        counts[became] += 1
        next if ["fine", "NoMemoryError", "SystemStackError", "our error", "Ruby's end"].include?(became)
        puts "#{name}, #{room} bytes, #{smallest || "no"} filling: #{became}"
      end
    end
    puts counts.sort.map { |became, count| "#{became}: #{count}" }.join(", ")
  RUBY

  def test_methods_without_memory
    skip_without_proc
    skip_under_sanitizers
    skip_without_limits
    output, = run_ruby_with_errors("LIMITS = #{LIMITS}\n#{WORKS}#{HARNESS}")
    puts output if ENV["VORN_LIMITS"]
    assert_match(/\A((Ruby's end|NoMemoryError|SystemStackError|fine): \d+, )*our error: \d+\n\z/, output)
  end
end
