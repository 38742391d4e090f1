# frozen_string_literal: true

module Model
  # Encodes a value at a buffer's position. A failure keeps the bytes written so far.
  class Encoder
    NAME = "serialize_rbobj_to_packetbuf: "
    MAXDEPTH = 64
    IMMEDIATE = (-2**(0.size * 8 - 2)...2**(0.size * 8 - 2)).freeze

    # The built-in method, which subclasses may override.
    EACH = Hash.instance_method(:each)
    EACH_OWNERS = [Hash, Hash.instance_method(:each).owner].freeze
    ARRAY_SIZE = Array.instance_method(:size)
    ARRAY_AT = Array.instance_method(:at)
    ENCODING = String.instance_method(:encoding)

    def initialize(buffer)
      @buffer = buffer
    end

    def write(value, depth = 1)
      raise NAME + "maxdepth exceeded" if depth > MAXDEPTH
      case value
      when NilClass then put(0x00)
      when FalseClass then put(0x01)
      when TrueClass then put(0x02)
      when Integer then integer(carried(value))
      when Float then @buffer.write_bytes([0x04, value].pack("CG"))
      when String then string(value)
      when Symbol then text(0x06, value.to_s.b[/\A[^\0]*/n])
      when Array then array(value, depth)
      when Hash then hash(value, depth)
      else raise NAME + "unsupported rb_type"
      end
    end

    private

    def put(*bytes)
      @buffer.write_bytes(bytes.pack("C*"))
    end

    # Immediate Integers (of 63 bits; 31 where addresses have 32) are truncated to 32 bits. The others must fit into 64.
    def carried(value)
      return Conversions.signed_32(value) if IMMEDIATE.cover?(value)
      return value if Conversions::LONG_LONG.cover?(value)
      raise RangeError, Conversions.too_big.sub("long'", "long long'")
    end

    def integer(value)
      rest = value.abs
      first = 0x80 | (value < 0 ? 0x40 : 0) | rest & 0x1F
      rest >>= 5
      put(*(rest > 0 ? [first | 0x20] + groups(rest) : [first]))
    end

    def groups(number)
      bytes = []
      while number > 0x7F
        bytes << (number & 0x7F | 0x80)
        number >>= 7
      end
      bytes << number
    end

    def string(value)
      utf8 = ENCODING.bind(value).call.equal?(Encoding::UTF_8)
      text(utf8 ? 0x07 : 0x05, [value].pack("a*"))
    end

    def text(type, bytes)
      put(type, *groups(bytes.bytesize))
      @buffer.write_bytes(bytes)
    end

    # Writes as many members as there were at the start; those removed since are nil.
    def array(value, depth)
      put(0x0A)
      size = ARRAY_SIZE.bind(value).call
      size.times { |index| write(ARRAY_AT.bind(value).call(index), depth + 1) }
      put(0x0B)
    end

    def hash(value, depth)
      put(0x08)
      if EACH_OWNERS.include?(value.method(:each).owner)
        EACH.bind(value).call { |key, member| entry([key, member], depth) }
      else
        own_each(value, depth)
      end
      put(0x09)
    end

    # An overridden `each` yields an Array, whose first two members count, or a key and a value. It may call its block
    # after the iteration has ended.
    def own_each(value, depth)
      ended = false
      value.each do |*yielded|
        raise NAME + "hash iteration has ended" if ended
        array = yielded.size == 1 && Array === yielded[0]
        raise NAME + "hash entry is not a [key, value] pair" unless array || yielded.size == 2
        entry(array ? yielded[0] : yielded, depth)
      end
    ensure
      ended = true
    end

    def entry(pair, depth)
      key, member = pair[0], pair[1]
      write(key, depth + 1)
      write(member, depth + 1)
      nil
    end
  end
end
