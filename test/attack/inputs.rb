# frozen_string_literal: true

module Attack
  # Random values, bytes and arguments.
  class Inputs
    STRINGS = ["", "a", "abc", "h\u00e9llo", "\xFF\xFE", "x" * 31, "y" * 127, "z" * 128, "a\0b",
               "\u{1F600}" * 20].freeze
    ENCODINGS = %w[UTF-8 UTF-8 UTF-8 BINARY US-ASCII ISO-8859-1 UTF-16LE Shift_JIS]
                .map { |name| Encoding.find(name) }.freeze
    SYMBOLS = [:a, :abc, :"", :"a\0b", :"\u00e9", :"x y", :[]=, "dynamic".to_sym, ("long" * 40).to_sym,
               "\xE9".dup.force_encoding("ISO-8859-1").to_sym].freeze
    INTEGERS = [0, 1, 31, 32, 4095, 4096, 2**19, 2**26, 2**30, 2**31 - 1, 2**31, 2**32, 2**32 + 5, 2**33, 2**40,
                2**62 - 1, 2**62, 2**63 - 1].flat_map { |n| [n, -n, -n - 1] }.freeze
    FLOATS = [0.0, -0.0, 1.5, -2.25, 1e300, -1e-300, 5e-324, Float::INFINITY, -Float::INFINITY, Float::NAN, Float::MAX,
              0.1].freeze
    UNSUPPORTED = [Object.new, Class, Math, /r/, 1..2, 2**64, -2**64, 2**63, -2**63 - 1, Rational(1, 3), Complex(1, 2),
                   Struct.new(:a).new(1), Time.at(0), proc {}, BasicObject.new, Callers::NoString.new, $stderr,
                   Thread.current,
                   method(:puts)].freeze
    # Neither Strings nor objects of the pool, and mostly not numbers.
    OTHERS = ([nil, false, true, 1, 2**70, 1.5, :sym, [], {}, [1], "string", Object] + UNSUPPORTED).freeze
    # Positions and other numbers, and objects that convert to one.
    NUMBERS = [0, 1, 2, 7, 8, 9, 11, 12, 13, 255, 65_535, 65_536, 70_000, 2**24, 2**31 - 1, 2**31, 2**32 - 1, 2**32,
               2**32 + 5, 2**62 - 1, 2**62, 2**63 - 1, 2**63, 2**64 - 1, 2**64, 2**70, -1, -2, -2**31, -2**32, -2**62,
               -2**63, -2**63 - 1, -2**64, -2**70, 2.9, -1.5, 1e10, 1e18, 9.3e18, 1.8e19, 1e19, 1e20, -1e19, 1e300,
               Float::NAN, Float::INFINITY,
               Rational(5, 2), nil, true, false, "5", :"5", [], {}, Object.new, Complex(3, 0), Time.at(3)].freeze
    TYPES = [0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x7F, 0x80, 0x81, 0xA0,
             0xC0, 0xFF].freeze

    def initialize(random)
      @random = random
      @values = Array.new(400) { value(3) }
      @encodings = @values.map { |value| Model::PacketBuf.new.write_object(value).to_str }
    rescue Model::TooLarge
      retry
    end

    def pick(list)
      list[@random.rand(list.size)]
    end

    def below(number)
      @random.rand(number)
    end

    def chance(one_in)
      @random.rand(one_in) == 0
    end

    # --- values ---------------------------------------------------------------------------------------------

    # A value that can be encoded, mostly one that was made before.
    def any_value
      chance(8) ? value(3) : pick(@values)
    end

    def value(levels)
      case below(levels > 0 ? 12 : 8)
      when 0 then pick([nil, true, false])
      when 1 then below(64) - 32
      when 2 then pick(INTEGERS)
      when 3 then pick(FLOATS)
      when 4, 5 then string
      when 6 then pick(SYMBOLS)
      when 7 then pick([[], {}, 1, "é", nil])
      when 8 then Array.new(size) { value(levels - 1) }
      when 9 then numbers
      else chance(4) ? table(levels) : entries(levels)
      end
    end

    # The size of a container: mostly small, now and then large.
    def size
      chance(15) ? below(90) : below(6)
    end

    # Integers of one kind, with exceptions.
    def numbers
      up_to = pick([32, 4096, 2**19, 2**26, 2**33, 2**40, 2**62])
      Array.new(size) { chance(30) ? value(0) : below(up_to) - (chance(3) ? up_to / 2 : 0) }
    end

    def entries(levels)
      hash = {}
      size.times { hash[key(levels)] = value(levels - 1) }
      hash
    end

    # Mostly with Integers as keys.
    def table(levels)
      hash = {}
      size.times { hash[chance(30) ? key(levels) : below(300)] = value(levels - 1) }
      hash
    end

    # Mostly a key that other hashes have too, or a similar one.
    def key(levels)
      return value(chance(3) ? levels - 1 : 0) if chance(3)
      key = pick(%w[k key name identifier]) + ("x" * (chance(8) ? below(70) : 0)) + below(40).to_s
      chance(3) ? key.to_sym : key.force_encoding(pick(ENCODINGS))
    end

    def string
      string = chance(200) ? "l" * below(70_000) : pick(STRINGS).dup
      string.force_encoding(pick(ENCODINGS))
    end

    # At or beyond the limit of nesting.
    def deep_value
      (60 + below(8)).times.inject(below(2)) { |inner, _| chance(2) ? [inner] : { inner => 1 } }
    end

    # --- bytes ----------------------------------------------------------------------------------------------

    # Encoded values, sound or damaged, or bytes that resemble them.
    def wire
      case below(10)
      when 0 then random_bytes(below(12))
      when 1 then Array.new(below(12)) { pick(TYPES) }.pack("C*")
      when 2 then odd_wire
      when 3, 4, 5 then mutated(pick(@encodings))
      else pick(@encodings)
      end
    end

    def random_bytes(size)
      @random.bytes(size)
    end

    # Encodings that no writer produces, but that every reader accepts or refuses.
    def odd_wire
      case below(9)
      when 0 then "\x03".b + random_bytes(4)
      when 1 then "\x06".b + [3].pack("C") + random_bytes(3)
      when 2 then [0xA0 | below(96), *Array.new(below(14)) { 0x80 | below(128) }, below(128)].pack("C*")
      when 3 then [5 + below(3), *Array.new(1 + below(11)) { 0x80 | below(128) }, below(128)].pack("C*") + "tail"
      when 4 then "\x0A".b * below(70) + "\x0B".b * below(70)
      when 5 then "\x08\x80".b * below(70) + "\x80".b + "\x09".b * below(70)
      when 6 then "\x08".b + "\x81\x07\x01k\x81\x82\x0A\x0B\x00".b * below(4) + "\x09".b
      when 7 then [5 + below(3), below(6)].pack("CC") + random_bytes(below(6))
      else "\x08".b + pick(@encodings) * 2 + "\x09".b
      end
    end

    # A hash with arrays and hashes as keys.
    def keyed_wire
      hash = {}
      (1 + size).times { |n| hash[chance(2) ? [n, any_value] : { n => value(1) }] = value(2) }
      Model::PacketBuf.new.write_object([1, hash]).to_str
    rescue Model::TooLarge
      keyed_wire
    end

    def mutated(bytes)
      bytes = bytes[0, 300]
      (1 + below(3)).times do
        at = below(bytes.bytesize + 1)
        case below(5)
        when 0 then bytes = bytes[0, at]
        when 1 then bytes = bytes[0, at] + pick(TYPES).chr.b + bytes[at..-1]
        when 2 then bytes = bytes[0, at] + random_bytes(1 + below(2)) + (bytes[at + 1..-1] || "")
        when 3 then bytes = bytes[0, at] + (bytes[at + 1..-1] || "")
        else bytes = bytes[0, at] + pick(@encodings)[0, 40] + bytes[at..-1]
        end
      end
      bytes
    end

    # A part of a stream: frames, sound or damaged, and bytes between them.
    def stream
      stream = chance(6) ? random_bytes(below(5)) : "".b
      (1 + below(3)).times { stream << frame }
      stream
    end

    def frame
      payload = chance(5) ? "".b : wire
      size = chance(10) ? payload.bytesize + below(9) - 4 : payload.bytesize
      size = pick([0, 1, 70_000, 2**31 - 1, 2**31, 2**32 - 1]) if chance(60) || size < 0
      seq = below(65_536)
      return mutated_header([0xA5, 1 | (chance(9) ? below(256) : 0), seq, size].pack("CCnN")) + payload if chance(2)
      check = chance(10) ? 0xDEADBEEE : 0xDEADBEEF
      header = [0xA5, 0, seq, size >> 16 & 0xFF, size & 0xFFFF, check, chance(10) ? 0x59 : 0x5A].pack("CCnCnNC")
      mutated_header(header) + payload
    end

    # The high bytes of the length stay: most lengths would be too long to try.
    def mutated_header(header)
      return header unless chance(12)
      header.setbyte(pick([0, 1, 2, 3, 7, header.bytesize - 1]), below(256))
      header
    end
  end
end
