# frozen_string_literal: true

require_relative "hash_hook"
require_relative "helper"

# `hash` of a key is Ruby code that runs in the middle of decoding: it can change the buffer that is being read.
# Decoding raises a Ruby exception or returns the right result.
class KeyHashTest < ExtTest
  def teardown
    HashHook.body = nil
  end

  # Decodes { [1] => 2, [3] => [4, "five"] }; the first key's `hash` yields the buffer.
  def read_while
    buf = buf_of(Hex.decode("08 0a 81 0b 82 0a 83 0b 0a 84 07 04 66 69 76 65 0b 09"))
    HashHook.body = -> { yield buf }
    buf.extract_object
  end

  HARMLESS = {
    "seek" => ->(buf) { buf.seek(1_000_000) },
    "reset" => ->(buf) { buf.reset },
    "growth" => ->(buf) { buf.seek(19).write_raw(MEGABYTES) },
    "growth again and again" => ->(buf) { 5.times { |n| buf.seek(19 + n * 3_000_000).write_raw(MEGABYTES) } },
    "the same bytes once more" => ->(buf) { buf.seek(0).write_raw(buf.seek(18).to_str) },
    "a collection" => ->(_) { GC.start },
    "reading the same value" => ->(buf) { buf.seek(0).extract_object },
    "copying the same value" => ->(buf) { buf.seek(0).copy_object(buf) },
    "limits" => ->(buf) { buf.maxdepth = 0 }
  }.freeze

  def test_keys_that_use_the_buffer
    HARMLESS.each do |name, use|
      called = false
      result = read_while { |buf| called = true; use.call(buf) }
      assert_equal({ [1] => 2, [3] => [4, "five"] }, result, name)
      assert called, name
    end
  end

  # Members behind the key are decoded from the bytes that its `hash` left there.
  def test_keys_that_overwrite_the_buffer
    ["\x09", "\x0b", "\xff", "\x0a", "\x07\xff\xff\xff\xff\x0f", "\x04"].each do |bytes|
      (1..18).each do |index|
        outcome = begin
          read_while { |buf| buf.seek(index).write_raw(bytes * 10) }
        rescue RuntimeError => error
          assert_match(/\Adecode_/, error.message)
          next
        end
        assert_kind_of Hash, outcome
      end
    end
  end

  # The storage moves during a decode, and its new copy changes behind the key's Hash, in the outer containers: the
  # decoder must read the new copy.
  def test_keys_that_move_the_buffer_and_change_it
    { "0a 08 0a 81 0b 82 09 87 0b" => [[{ [1] => 2 }, 9], 7],
      "0a 08 0a 81 0b 82 09 07 01 61 0b" => [[{ [1] => 2 }, "!"], 9],
      "08 88 08 0a 81 0b 82 09 87 81 09" => [{ 8 => { [1] => 2 }, 9 => 1 }, 8] }.each do |text, (expected, index)|
      buf = buf_of(Hex.decode(text))
      HashHook.body = lambda do
        buf.seek(100).write_raw(MEGABYTES)
        buf.seek(index).write_raw(expected.to_s.include?("!") ? "!" : Hex.decode("89"))
      end
      assert_equal expected, buf.extract_object, text
    end
  end

  # The checking pass counts one member, a String; when the Array is built, the String's bytes have become 99 nils. And
  # the other way around.
  def test_keys_that_change_how_many_members_follow
    few = Hex.decode("0a 08 0a 81 0b 82 09 0a 07 61") + "x" * 97 + Hex.decode("0b 0b")
    many = Hex.decode("0a 08 0a 81 0b 82 09 0a") + "\0" * 99 + Hex.decode("0b 0b")
    [[few, many, [{ [1] => 2 }, [nil] * 99]], [many, few, [{ [1] => 2 }, ["x" * 97]]]].each do |before, after, expected|
      buf = buf_of(before)
      HashHook.body = -> { buf.seek(8).write_raw(after.byteslice(8..-1)) }
      assert_equal expected, buf.extract_object
    end
  end

  # Lengths and depths must be checked again if bytes may have changed since the checking pass.
  def test_keys_that_overwrite_up_to_the_bounds
    underrun = "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes"
    too_deep = "decode_next_packetbuf_rbobj: maxdepth exceeded"
    { "0a 08 0a 81 0b 82 09 07 01 61 0b" => [8, "03", underrun],
      "08 81 08 0a 81 0b 82 09 83 07 06 61 61 61 61 61 61 09" =>
        [9, "0a 0a 0a 0a 0b 0b 0b 0b", too_deep] }.each do |text, (index, bytes, error)|
      buf = buf_of(Hex.decode(text))
      buf.maxdepth = 4
      HashHook.body = -> { buf.seek(index).write_raw(Hex.decode(bytes)) }
      assert_raises_with(RuntimeError, error) { buf.extract_object }
    end
  end

  def test_keys_that_leave_the_decode
    error = Class.new(StandardError)
    assert_raises(error) { read_while { raise error } }
    assert_equal :thrown, catch(:out) { read_while { throw :out, :thrown } }
    assert_raises(Timeout::Error) { Timeout.timeout(0.05) { read_while { sleep } } }
    assert_nil Thread.new { read_while { Thread.current.kill } }.value
    buf = nil
    assert_raises(error) { read_while { |b| buf = b; raise error } }
    assert_usable buf
  end

  def test_keys_that_assemble_the_frame_again
    value = Hex.decode("08 0a 81 0b 82 09")
    bytes = [0xA5, 1, 7, value.size].pack("CCnN") + value
    frame = PacketFrameIn.new.reset
    assert_equal bytes.size, frame.assemble(bytes, 0)
    HashHook.body = -> { frame.reset; frame.assemble(bytes, 0) }
    assert_equal({ [1] => 2 }, frame.seek_payload_start.extract_object)
    assert_equal bytes.size, frame.pos
  end
end
