# frozen_string_literal: true

# Random trees, from Ruby through C++ and from C++ through Ruby: TREES in each direction, from SEED on.

require_relative "peer"

# Random Ruby values that a variant can represent.
class Trees
  def initialize(seed)
    @random = Random.new(seed)
  end

  def next_tree(depth = 0)
    case @random.rand(depth < 6 ? 9 : 7)
    when 0 then nil
    when 1 then @random.rand(2).zero?
    when 2 then @random.rand(2**32) - 2**31
    when 3 then heap_integer
    when 4 then @random.rand(2**53) / 1024.0 - 2**40
    when 5 then string
    when 6 then string.bytes.map { |b| (97 + b % 26).chr }.join.to_sym
    when 7 then Array.new(@random.rand(6)) { next_tree(depth + 1) }
    else
      hash = {}
      @random.rand(6).times { hash[@random.rand(4).zero? ? :key : string] = next_tree(depth + 1) }
      hash
    end
  end

  private

  def heap_integer
    (2**62 + @random.rand(2**62)) * (@random.rand(2).zero? ? 1 : -1)
  end

  def string
    length = @random.rand(8).zero? ? @random.rand(300) : @random.rand(12)
    bytes = Array.new(length) { @random.rand(256) }.pack("C*")
    @random.rand(2).zero? ? bytes : bytes.force_encoding(Encoding::UTF_8)
  end
end

class TreesTest < Minitest::Test
  include Peer

  COUNT = Integer(ENV.fetch("TREES", 50_000))
  SEED = Integer(ENV.fetch("SEED", 20_261_121))

  def test_ruby_through_cpp
    trees = Trees.new(SEED)
    originals = Array.new(COUNT) { trees.next_tree }
    frame = VORN::PROTO::PacketFrameOut.new
    echoed, finished = peer("echo", originals.map { |value| frame_of(frame, value) }.join)
    assert finished
    came_back = values_of(echoed)
    assert_equal COUNT, came_back.size
    changed = originals.zip(came_back).reject { |value, back| same?(as_variant(value), back) }
    assert_empty changed.first(3), "#{changed.size} of #{COUNT} changed"
  end

  # C++ compares the trees it generated with those that Ruby read and wrote.
  def test_cpp_through_ruby
    generated, finished = peer("generate", SEED, COUNT, "")
    assert finished
    out_frame = VORN::PROTO::PacketFrameOut.new
    again = "".b
    each_frame(generated) { |frame| again << written_again(frame, out_frame) }
    assert peer("check", SEED, COUNT, again).last
  end

  private

  # Integers beyond 32 bits that Ruby holds as immediate Integers are the only values that Ruby cannot write back: their
  # trees are copied as bytes.
  def written_again(frame, out_frame)
    value = frame.extract_object
    return frame_of(out_frame, value) unless wide?(value)
    frame.seek_payload_start
    out_frame.use_12byte_header = false
    frame.copy_object(out_frame)
    out_frame.compute_frame_header.to_str
  end

  def wide?(value)
    case value
    when Integer then !value.between?(-2**31, 2**31 - 1) && value.between?(-2**62, 2**62 - 1)
    when Array then value.any? { |member| wide?(member) }
    when Hash then value.any? { |_, member| wide?(member) }
    else false
    end
  end

  # The value after a variant has held it: symbols are strings, strings are UTF-8, keys are binary and in the order of
  # their bytes, and the last of equal keys wins.
  def as_variant(value)
    case value
    when Symbol then value.to_s.dup.force_encoding(Encoding::UTF_8)
    when String then value.dup.force_encoding(Encoding::UTF_8)
    when Array then value.map { |v| as_variant(v) }
    when Hash
      pairs = {}
      value.each { |k, v| pairs[k.to_s.b] = as_variant(v) }
      Hash[pairs.sort_by { |k, _| k.bytes.to_a }]
    else value
    end
  end

  # Equality that includes encodings, order and the bits of floats.
  def same?(a, b)
    return false unless a.class == b.class
    case a
    when String then a.encoding == b.encoding && a.b == b.b
    when Float then [a].pack("G") == [b].pack("G")
    when Array then a.size == b.size && a.zip(b).all? { |x, y| same?(x, y) }
    when Hash then same?(a.to_a, b.to_a)
    else a == b
    end
  end
end
