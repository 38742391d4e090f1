# frozen_string_literal: true

# Packed values, from Ruby through C++ and from C++ through Ruby: TREES / 10 in each direction, from SEED on.

require_relative "peer"
require_relative "../support/packing_notation"
require "vorn_rpc/packing"

class PackedValuesTest < Minitest::Test
  include Peer

  COUNT = [Integer(ENV.fetch("TREES", 50_000)) / 10, 1].max
  SEED = Integer(ENV.fetch("SEED", 20_261_121))
  Point = Struct.new(:x, :y)
  PACKING = VORN::Packing.new(*VORN::Packing::READY_MADE) { |types| types.struct("point", Point) }

  # Values that C++ can hold: keys are Strings, in the order of their bytes.
  class Values
    KEYS = ["", "a", "}", "~", "~time", "~~", "~~time", "~~~", "~\u00E9"].freeze

    def initialize(seed)
      @random = Random.new(seed)
    end

    def value(levels = 5)
      return scalar if levels == 0
      case @random.rand(7)
      when 0, 1 then Array.new(@random.rand(4)) { value(levels - 1) }
      when 2 then { one_of(KEYS) => value(levels - 1) }
      when 3 then Hash[KEYS.select { @random.rand(3) == 0 }.map { |key| [key, value(levels - 1)] }]
      when 4 then Point.new(value(levels - 1), value(levels - 1))
      else scalar
      end
    end

    private

    def one_of(list)
      list[@random.rand(list.size)]
    end

    def integer
      one_of([1, -1]) * @random.rand(1 << one_of([3, 31, 32, 62, 63, 64, 200]))
    end

    def scalar
      case @random.rand(9)
      when 0 then one_of([nil, true, false, 0.5, -0.0])
      when 1, 2 then integer
      when 3 then one_of([2**31, -2**31, 2**62, 2**63, -2**63, 2**64]) + one_of([-1, 0, 1])
      when 4 then one_of(KEYS)
      when 5 then time
      when 6 then Date.jd(2_440_588 + @random.rand(2**32) - 2**31)
      when 7 then BigDecimal("#{integer}e#{@random.rand(50) - 25}")
      else Rational(integer, 1 + @random.rand(2**70))
      end
    end

    def time
      time = Time.at(@random.rand(2**37) - 2**36, Rational(@random.rand(10**9), 1000))
      @random.rand(2) == 0 ? time.utc : time.localtime(@random.rand(172_799) - 86_399)
    end
  end

  def test_ruby_through_cpp
    values = Values.new(SEED)
    originals = Array.new(COUNT) { values.value }
    frame = VORN::PROTO::PacketFrameOut.new
    answers, finished = peer("unpack", originals.map { |value| frame_of(frame, PACKING.pack(value)) }.join)
    assert finished
    answers = values_of(answers)
    assert_equal COUNT, answers.size
    originals.zip(answers) do |value, (text, packed)|
      expected = text_of(value)
      assert_equal [expected, expected], [text, text_of(PACKING.unpack(packed))]
    end
  end

  # C++ compares the values that it packed with those that Ruby unpacked and packed.
  def test_cpp_through_ruby
    generated, finished = peer("generate-packed", SEED, COUNT, "")
    assert finished
    out_frame = VORN::PROTO::PacketFrameOut.new
    values = values_of(generated)
    assert_equal COUNT, values.size
    again = values.map { |value| frame_of(out_frame, PACKING.pack(PACKING.unpack(value))) }.join
    assert peer("check-packed", SEED, COUNT, again).last
  end

  private

  # Without the encodings, which variants have not.
  def text_of(value)
    PackingNotation.of(value).gsub(/[bu]:/, "t:")
  end
end
