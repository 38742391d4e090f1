# frozen_string_literal: true

require "socket"
require "stringio"
require "tempfile"
require "zlib"
require_relative "../ext/helper"
require_relative "../ext/own_each"
require_relative "../ext/ruby_process"
require "vorn_rpc/stream"

# Readers and writers on what Ruby reads and writes, and what the decoder and the encoder owe their callers.
class StreamTest < Minitest::Test
  include RubyProcess
  include VORN::Stream

  LIB = File.expand_path("../../lib", __dir__)

  MESSAGES = [[1, "echo", ["one"]], false, nil, { "three" => "\xA5\xA5".b }, 2.5, []].freeze

  def bytes_of(*messages, **options)
    encoder = Encoder.new(**options)
    messages.map { |message| encoder.frame(message) }.join
  end

  # --- on an IO -----------------------------------------------------------------------------------------------

  def test_sockets
    here, there = UNIXSocket.pair
    writer = Writer.new(here)
    assert_same writer, writer << MESSAGES[0]
    assert_same writer, writer.write(*MESSAGES[1..-1])
    here.close
    reader = Reader.new(there)
    assert_equal MESSAGES, reader.to_a
    assert_equal [2, 6, 1], [reader.statistics.frames, reader.statistics.messages, reader.seq]
    assert_raises(EOFError) { reader.read }
  ensure
    there.close
  end

  def test_files_and_other_objects
    bytes = bytes_of(*MESSAGES)
    Tempfile.create("vorn", binmode: true) do |file|
      MESSAGES.each_with_object(Writer.new(file)) { |message, writer| writer << message }
      file.rewind
      assert_equal bytes, file.read
      file.rewind
      assert_equal MESSAGES, Reader.new(file).to_a
    end
    assert_equal MESSAGES, Reader.new(StringIO.new(bytes)).to_a
    packed = StringIO.new("".b)
    gzip = Zlib::GzipWriter.new(packed)
    Writer.new(gzip).write(*MESSAGES)
    gzip.finish
    packed.rewind
    assert_equal MESSAGES, Reader.new(Zlib::GzipReader.new(packed)).to_a
  end

  # Has `read`, and nothing else; every call brings one byte.
  class Trickle
    def initialize(bytes)
      @bytes = bytes.each_char.to_a
    end

    def read(_count)
      @bytes.shift
    end
  end

  def test_an_object_that_only_reads
    assert_equal MESSAGES, Reader.new(Trickle.new(bytes_of(*MESSAGES))).to_a
  end

  def test_reading_one_by_one
    reader = Reader.new(StringIO.new(bytes_of(*MESSAGES)))
    assert_equal MESSAGES, MESSAGES.map { reader.read }
    2.times { assert_equal "end of stream", assert_raises(EOFError) { reader.read }.message }
  end

  def test_an_end_in_the_middle_of_a_frame
    reader = Reader.new(StringIO.new(bytes_of(1, 2)[0..-2]))
    read = []
    error = assert_raises(TruncatedStream) { reader.each { |message| read << message } }
    assert_equal [[1], 9], [read, error.offset]
    assert_raises(TruncatedStream) { reader.read }
  end

  def test_damage_is_passed_over_with_a_block
    damages = []
    bytes = "noise".b + bytes_of(1) + "\xA5".b
    assert_equal [1], Reader.new(StringIO.new(bytes)) { |damage| damages << damage }.to_a
    assert_equal ["bytes that belong to no frame (5 bytes skipped, from byte 0 of the stream on)",
                  "the stream ends in the middle of a frame (1 bytes skipped, from byte 14 of the stream on)"],
                 damages.map(&:to_s)
  end

  def test_options_reach_the_decoder
    bytes = bytes_of([[:a]])
    assert_equal [[[:a]]], Reader.new(StringIO.new(bytes), preserve_symbols: true).to_a
    assert_raises(DamagedStream) { Reader.new(StringIO.new(bytes), max_depth: 2).to_a }
    assert_raises(DamagedStream) { Reader.new(StringIO.new(bytes), max_length: 2).to_a }
    assert_raises(ArgumentError) { Reader.new(StringIO.new(bytes), maxlength: 2) }
  end

  # What the IO raises goes through, and what had arrived is not lost.
  def test_an_io_that_fails_now_and_then
    bytes = bytes_of(*MESSAGES)
    failing = false
    io = Class.new do
      define_method(:readpartial) do |_count|
        raise IOError, "later" if (failing = !failing)
        raise EOFError if bytes.empty?
        bytes.slice!(0, 7)
      end
    end.new
    reader = Reader.new(io)
    read = []
    begin
      reader.each { |message| read << message }
    rescue IOError => error
      raise if error.is_a?(EOFError)
      retry
    end
    assert_equal MESSAGES, read
  end

  # --- the decoder --------------------------------------------------------------------------------------------

  # Raised, thrown or broken out of: the rest of the chunk stays.
  def test_a_block_that_does_not_return
    leave = { "raise" => ->(_) { raise IOError }, "StopIteration" => ->(_) { raise StopIteration },
              "throw" => ->(_) { throw :out } }
    leave.each do |name, how|
      decoder = Decoder.new
      read = []
      rest = bytes_of(*MESSAGES)
      until read.size == MESSAGES.size
        catch(:out) do
          begin
            decoder.feed_each(rest) { |message| read << message; how.call(message) }
            flunk
          rescue IOError, StopIteration
            nil
          end
        end
        rest = ""
      end
      assert_equal MESSAGES, read, name
      assert decoder.finish
    end
  end

  # A chunk that is a frame belongs behind what came before it.
  def test_whole_frames_behind_other_bytes
    frame = bytes_of([1])
    events = []
    decoder = Decoder.new { |damage| events << damage.bytes }
    feed = ->(bytes) { decoder.feed_each(bytes) { |message| events << message } }
    feed.call("noise")
    feed.call(frame)
    assert_equal [5, [1]], events.shift(2)
    [bytes_of(1, 2), Encoder.new.frame(1, 2)].each do |both|
      decoder.feed_each(both) { break }
      feed.call(frame)
      assert_equal [2, [1]], events.shift(2)
    end
    around = Encoder.new.frame("<#{frame}>".b)
    before, inside, behind = around.partition(frame)
    [before, inside, behind].each(&feed)
    assert_equal ["<#{frame}>".b], events.shift(1)
    feed.call(around[0, 3])
    feed.call(frame)
    assert_equal [3, [1]], events.shift(2)
    assert_empty events
    assert_equal [8, 9, 8, 2], decoder.finish.statistics.to_a.drop(1)
  end

  # As read buffers are.
  def test_the_chunk_is_the_callers_again
    bytes = bytes_of(*MESSAGES)
    chunk = "".b
    decoder = Decoder.new
    read = []
    bytes.each_char do |byte|
      chunk.replace(byte)
      decoder.feed_each(chunk) { |message| read << message }
      chunk.replace("\xA5")
    end
    decoder.feed(chunk.replace(bytes))
    chunk.replace("\xA5" * bytes.bytesize)
    decoder.each { |message| read << message }
    assert_equal MESSAGES + MESSAGES, read
    half = chunk.replace(bytes + "\xA5\x01".b)
    decoder.feed_each(half) { |message| read << message and break }
    half.replace("\xA5" * half.bytesize)
    decoder.each { |message| read << message }
    decoder.feed_each(bytes_of(7)[2..-1]) { |message| read << message }
    assert_equal MESSAGES * 3 + [7], read
  end

  def test_feeding_byte_by_byte_before_reading
    text = "x" * 300_000
    decoder = Decoder.new
    bytes_of(text, 1).each_char { |byte| decoder.feed(byte) }
    assert_equal [text, 1], decoder.to_a
  end

  def test_a_block_that_feeds
    decoder = Decoder.new
    read = []
    decoder.feed_each(bytes_of(1)) do |message|
      read << message
      decoder.feed(bytes_of(message + 1)) if message < 5
    end
    assert_equal [1, 2, 3, 4, 5], read
  end

  def test_strings_in_any_encoding
    bytes = bytes_of("\u00e9", "\xA5\xFF".b)
    [Encoding::UTF_8, Encoding::UTF_16LE, Encoding::US_ASCII].each do |encoding|
      chunk = ("noise".b + bytes).force_encoding(encoding)
      damages = 0
      assert_equal ["\u00e9", "\xA5\xFF".b], Decoder.new { damages += 1 }.feed_each(chunk).to_a
      assert_equal [1, encoding], [damages, chunk.encoding]
    end
    assert_raises(TypeError) { Decoder.new.feed(nil) }
  end

  def test_a_frame_that_cannot_be_read_ends_the_stream
    decoder = Decoder.new
    bytes = [0xA5, 1, 0, 2].pack("CCnN") + "\x06\x09".b
    assert_raises(DamagedStream) { decoder.feed_each(bytes) {} }
    assert_raises(DamagedStream) { decoder.feed_each(bytes_of(1)) { flunk } }
  end

  def test_a_damaged_stream_has_ended
    decoder = Decoder.new
    read = []
    error = assert_raises(DamagedStream) { decoder.feed_each(bytes_of(1, 2) + "?") { |message| read << message } }
    assert_equal [[1, 2], 18], [read, error.offset]
    [-> { decoder.feed(bytes_of(3)) }, -> { decoder.feed_each("") {} }, -> { decoder.each {} },
     -> { decoder.finish }].each { |call| assert_same error, assert_raises(DamagedStream, &call) }
  end

  def test_a_symbol_that_is_none
    bytes = [0xA5, 1, 0, 4].pack("CCnN") + "\x06\x02\xC3\x28".b
    error = assert_raises(DamagedStream) { Decoder.new(preserve_symbols: true).feed_each(bytes) {} }
    assert_match(/\Aa frame whose payload cannot be read: invalid (?:encoding )?symbol/, error.message)
    assert_equal ["\xC3("], Decoder.new.feed_each(bytes).to_a
  end

  # The error comes with the header, and a header that announces too much reserves nothing.
  def test_announced_lengths_reserve_nothing
    skip "no /proc" unless File.readable?("/proc/self/status")
    before = File.read("/proc/self/status")[/^VmPeak:\s+(\d+)/, 1].to_i
    assert_raises(DamagedStream) { Decoder.new.feed_each("\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b) {} }
    after = File.read("/proc/self/status")[/^VmPeak:\s+(\d+)/, 1].to_i
    assert_operator after - before, :<, 1 << 20, "KiB of address space"
  end

  # The assembler takes the header, and finds no memory for what it announces.
  def test_no_memory_for_a_payload
    decoder = Decoder.new
    calls = 0
    decoder.instance_variable_get(:@frame).define_singleton_method(:assemble) do |bytes, offset|
      next super(bytes, offset) unless (calls += 1) == 2
      super(bytes.byteslice(0, offset + 8), offset)
      raise "C++ exception: std::bad_alloc"
    end
    read = []
    text = "x" * 1000
    assert_raises(RuntimeError) { decoder.feed_each(bytes_of(1, text)) { |message| read << message } }
    assert_equal [1], read
    decoder.feed_each(bytes_of(2)) { |message| read << message }
    assert_equal [1, text, 2], read
  end

  # What the program's own code raises is no damage.
  def test_a_report_that_raises
    decoder = Decoder.new { raise "out of here" }
    read = []
    assert_equal "out of here", assert_raises(RuntimeError) {
      decoder.feed_each("?".b + bytes_of(1, 2)) { |message| read << message }
    }.message
    decoder.each { |message| read << message }
    assert_equal [1, 2], read
    assert_equal 1, decoder.statistics.damages
  end

  def test_where_a_stream_may_end
    [true, false].each do |twelve|
      bytes = bytes_of("text", twelve_byte_header: twelve)
      decoder = Decoder.new
      assert decoder.between_frames?
      bytes.each_char.with_index(1) do |byte, count|
        decoder.feed_each(byte) { |message| assert_equal "text", message }
        assert_equal count == bytes.bytesize, decoder.between_frames?, "after #{count} bytes"
      end
    end
  end

  # A stream that is cut at any byte yields the frames before, and tells a clean end from another.
  def test_every_end
    frames = [bytes_of(1), bytes_of("two", twelve_byte_header: true), Encoder.new.frame, Encoder.new.frame([3], nil)]
    bytes = frames.join
    ends = frames.each_index.map { |i| frames[0..i].map(&:bytesize).inject(:+) }
    (0..bytes.bytesize).each do |length|
      decoder = Decoder.new
      decoder.feed_each(bytes.byteslice(0, length)) {}
      whole = [0, *ends].select { |at| at <= length }.max
      assert_equal [0, *ends].index(whole), decoder.statistics.frames
      next assert_same(decoder, decoder.finish) if whole == length
      assert_equal whole, assert_raises(TruncatedStream) { decoder.finish }.offset
    end
  end

  # A long run of bytes in which many frames could begin takes time in proportion.
  def test_many_beginnings
    bytes = "\xA5\x00\xA5\x01\xFF".b * 20_000
    damages = []
    decoder = Decoder.new { |damage| damages << damage.bytes }
    assert_equal [1], decoder.feed_each(bytes + bytes_of(1)).to_a
    assert_equal [100_000], damages
  end

  def test_limits_are_checked
    [-1, 2**31, 1.5, nil].each do |limit|
      [Decoder, Encoder].each { |c| assert_raises(ArgumentError) { c.new(max_length: limit) } }
    end
    assert Decoder.new(max_length: 2**31 - 1)
  end

  # Whatever is changed in a stream, and however it is cut: the same messages, the same damage, no other error.
  def test_random_damage
    random = Random.new(20)
    original = bytes_of(*MESSAGES) + bytes_of(*MESSAGES, twelve_byte_header: true)
    500.times do
      bytes = original.dup
      (1 + random.rand(3)).times do
        at = random.rand(bytes.bytesize)
        case random.rand(3)
        when 0 then bytes.setbyte(at, random.rand(256))
        when 1 then bytes.slice!(at, 1 + random.rand(4))
        else bytes[at, 0] = random.bytes(1 + random.rand(4))
        end
      end
      cuts = Array.new(random.rand(8)) { random.rand(bytes.bytesize) }.sort
      chunks = [0, *cuts].zip([*cuts, bytes.bytesize]).map { |from, to| bytes.byteslice(from...to) }
      assert_equal survived([bytes]), survived(chunks), bytes.inspect
    end
  end

  def survived(chunks)
    events = []
    decoder = Decoder.new(max_length: 1000) { |damage| events << damage.to_s }
    chunks.each { |chunk| decoder.feed_each(chunk) { |message| events << message } }
    decoder.finish
    events.inspect
  end

  # --- the encoder --------------------------------------------------------------------------------------------

  CUT = [2**31, -2**31 - 1, 5_000_000_000, 2**62 - 1, -2**62].freeze
  WHOLE = [0, 2**31 - 1, -2**31, 2**62, -2**62 - 1, 2**63 - 1, -2**63].freeze

  def test_integers_are_not_cut
    skip "immediate Integers of 31 bits" if 0.size < 8
    encoder = Encoder.new
    wrapped = [->(n) { n }, ->(n) { [1, [n]] }, ->(n) { { "a" => [n] } }, ->(n) { { n => 1 } }, ->(n) { { 1 => n } },
               ->(n) { OwnEach.new { |block| block.call([1, n]) } }]
    wrapped.each do |wrap|
      CUT.each do |n|
        error = assert_raises(RangeError) { encoder.frame(1, wrap.call(n)) }
        assert_equal "#{n} would be cut to 32 bits", error.message
      end
      WHOLE.each { |n| assert_equal 1, Decoder.new.feed_each(encoder.frame(1, wrap.call(n))).first }
    end
    assert_equal WHOLE, Decoder.new.feed_each(encoder.frame(*WHOLE)).to_a
    assert_equal [0], Decoder.new.feed_each(Encoder.new(strict_integers: false).frame(2**32)).to_a
  end

  def test_what_fails_leaves_the_encoder_as_it_was
    encoder = Encoder.new(max_length: 10)
    loop_ = [].tap { |array| array << array }
    bad = { "123456789" => MessageTooLarge, Time => RuntimeError, loop_ => RuntimeError, 2**64 => RangeError }
    bad.each { |message, error| assert_raises(error) { encoder.frame(1, message) } }
    assert_equal bytes_of(7), encoder.frame(7)
    assert_equal "a frame of 11 bytes, 10 are allowed",
                 assert_raises(MessageTooLarge) { encoder.frame("123456789") }.message
    assert_equal [1, 2], Array.new(2) { encoder.frame(nil).unpack("@2n")[0] }
  end

  def test_a_frame_too_long_for_its_header
    encoder = Encoder.new(max_length: 2**31 - 1, twelve_byte_header: true)
    assert_raises(MessageTooLarge) { encoder.frame("x" * 2**24) }
    assert_equal 12 + 2**24 - 1, encoder.frame("x" * (2**24 - 6)).bytesize
  end

  def test_nothing_is_written_when_a_message_fails
    io = StringIO.new
    assert_raises(RuntimeError) { Writer.new(io).write(1, Object.new) }
    assert_equal "", io.string
  end

  # Reading a Hash calls an Array key's `hash`, which a program can make raise what it likes, as another thread can.
  def test_errors_of_the_program_are_not_taken_for_damage
    out = run_ruby(<<-RUBY)
      $LOAD_PATH.push(#{LIB.inspect})
      require "vorn_rpc/stream"
      $raised = nil
      module Raising
        def hash
          $raised ? raise($raised, "as told") : super
        end
      end
      Array.prepend(Raising)
      def outcome
        messages = []
        yield messages
        messages
      rescue StandardError => error
        error.class
      end
      encoder = VORN::Stream::Encoder.new
      frame = encoder.frame({ [1] => 2 })
      [[frame], [frame[0, 9], frame[9..-1]], [frame + encoder.frame(3)]].each do |pieces|
        [nil, proc { |damage| puts damage.reason }].each do |on_damage|
          [Class.new(RuntimeError), Class.new(EncodingError), IOError].each do |error|
            decoder = VORN::Stream::Decoder.new(&on_damage)
            $raised = error
            raised = outcome { |messages| pieces.each { |piece| decoder.feed_each(piece) { |one| messages << one } } }
            $raised = nil
            puts "\#{error.superclass} became \#{raised}" unless raised == error
            after = outcome { |messages| decoder.feed_each(frame) { |one| messages << one } }
            puts "then \#{after}" unless after.is_a?(Array) && after.last == { [1] => 2 }
          end
        end
      end
      print "done"
    RUBY
    assert_equal "done", out
  end

  # --- both ---------------------------------------------------------------------------------------------------

  # What helps beyond the core is loaded by its own name.
  def test_the_core_is_without_it
    loaded = run_ruby(<<-RUBY)
      $LOAD_PATH.push(#{LIB.inspect})
      require "vorn_rpc"
      print VORN.constants.sort.inspect, " ", VORN::PROTO.constants.sort.inspect
    RUBY
    assert_equal "[:PROTO, :VERSION] [:PacketBuf, :PacketFrame, :PacketFrameIn, :PacketFrameOut]", loaded
  end
end
