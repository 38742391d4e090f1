# frozen_string_literal: true

# The base class of the extension's tests.
#
# VORN_GC sets how often the garbage collector runs:
#
#   normal   as in any program (default)
#   major    a full collection around each test
#   compact  a compaction around each test, where the interpreter can
#   stress   a collection at every allocation inside encode() and decode()

# Appended, so that a build folder given with -I takes precedence over lib/.
%w[.. ../../lib].each do |relative|
  folder = File.expand_path(relative, __dir__)
  $LOAD_PATH.push(folder) unless $LOAD_PATH.include?(folder)
end

require "minitest/autorun"
require "timeout"
require "vorn_rpc_ext"
require_relative "../support/hex"

module CollectorLevel
  LEVEL = ENV.fetch("VORN_GC", "normal")
  AROUND_TEST = {
    "normal" => -> {},
    "stress" => -> {},
    "major" => -> { GC.start },
    "compact" => -> { GC.respond_to?(:compact) ? GC.compact : GC.start }
  }.fetch(LEVEL)

  def self.under_stress
    before = GC.stress
    GC.stress = true
    yield
  ensure
    GC.stress = before
  end

  # Every full collection moves objects. Ruby 3.1 also moves those that it may not, and ends the process, if it is
  # marking when this begins (a mark pins nothing while compaction is off): GC.start ends the mark first.
  def self.compacting_by_itself
    GC.start
    GC.auto_compact = true
    yield
  ensure
    GC.auto_compact = false
  end

  def self.compacts_by_itself?
    GC.respond_to?(:auto_compact=) && compacting_by_itself { true }
  rescue NotImplementedError
    false
  end

  def before_setup
    super
    AROUND_TEST.call
  end

  def after_teardown
    AROUND_TEST.call
    super
  end
end

class ExtTest < Minitest::Test
  include CollectorLevel
  include VORN::PROTO

  # Larger than a buffer's initial capacity: writing it reallocates the storage.
  MEGABYTES = ("m" * 3_000_000).freeze

  def buf_of(bytes)
    PacketBuf.new.write_raw(bytes).seek(0)
  end

  # All bytes that a buffer stores, whatever its position and its payload.
  def stored(buf)
    (0...2**20).each do |size|
      buf.pos = size
      return buf.to_str unless buf.index_within_payload?(size)
    end
  end

  def encode(obj)
    Hex.encode(at_level { PacketBuf.new.write_object(obj).to_str })
  end

  # The value must consume all bytes.
  def decode(text, options = {})
    buf = buf_of(Hex.decode(text))
    options.each { |name, value| buf.public_send("#{name}=", value) }
    value = at_level { buf.extract_object }
    assert_equal Hex.decode(text).size, buf.pos, "position behind the value"
    value
  end

  # Whether a C long of this machine holds the number, or an unsigned one. Conversions of others raise RangeError.
  def fits?(number, unsigned = true)
    bits = [0].pack("l!").bytesize * 8
    number.to_int.between?(-2**(bits - 1), 2**(unsigned ? bits : bits - 1) - 1)
  end

  def assert_raises_with(error, text, note = nil)
    raised = assert_raises(error, note.to_s) { yield }
    assert_equal [error, text], [raised.class, raised.message], note
    raised
  end

  # An error must not leave the buffer unusable.
  def assert_usable(buf)
    buf.maxdepth = 64
    start = buf.reset.pos
    deep = 62.times.inject(1) { |inner, _| [inner] }
    buf << { 1 => deep }
    assert_equal({ 1 => deep }, buf.seek(start).extract_object) unless buf.is_a?(PacketFrameIn)
  end

  def assert_binary(expected, string)
    assert_equal [expected.b, Encoding::BINARY], [string.b, string.encoding]
  end

  private

  def at_level(&codec)
    CollectorLevel::LEVEL == "stress" ? CollectorLevel.under_stress(&codec) : codec.call
  end
end
