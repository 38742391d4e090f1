# frozen_string_literal: true

# The decoder once more, as plainly as it can be said: one pass, no regard for speed. What the extension does with
# any bytes is compared with it.
class WireModel
  class Fault < StandardError
  end

  # [value, nil, position] or [nil, message of the fault, position]. Symbols are read as Strings.
  def self.decode(bytes, maxdepth = 64)
    model = new(bytes, maxdepth)
    [model.value(1), nil, model.pos]
  rescue Fault => fault
    [nil, fault.message, model.pos]
  end

  # A value with all that `==` does not see: encodings, the order of entries, the bits of floats.
  def self.signature(value)
    case value
    when String then [:string, value.encoding.name, value.b]
    when Symbol then [:symbol, value.encoding.name, value.to_s.b]
    when Float then [:float, [value].pack("G")]
    when Array then value.map { |member| signature(member) }
    when Hash then [:hash, value.map { |key, member| [signature(key), signature(member)] }]
    else value
    end
  end

  attr_reader :pos

  def initialize(bytes, maxdepth)
    @bytes = bytes.bytes.to_a
    @maxdepth = maxdepth
    @pos = 0
  end

  def value(depth)
    fault("decode_next_packetbuf_rbobj: maxdepth exceeded") if depth > @maxdepth
    type = @bytes[@pos] || fault("decode_next_packetbuf_rbobj: buffer underrun")
    return integer if type >= 0x80
    @pos += 1
    case type
    when 0x00 then nil
    when 0x01 then false
    when 0x02 then true
    when 0x03 then float(4, "g", "decode_packetbuf_rbfloat")
    when 0x04 then float(8, "G", "decode_packetbuf_rbdouble")
    when 0x05 then string.force_encoding("BINARY")
    when 0x06, 0x07 then string.force_encoding("UTF-8")
    when 0x08 then hash(depth)
    when 0x0A then array(depth)
    else fault("decode_next_packetbuf_rbobj: unrecognized protocol transport type")
    end
  end

  private

  def fault(message)
    raise Fault, message
  end

  # Adds up the groups from the position on, the first with its own width. Bits beyond the 64th start over.
  def groups(first_bits, continued, underrun)
    magnitude = 0
    shift = 0
    width = first_bits
    loop do
      byte = @bytes[@pos] || fault(underrun)
      @pos += 1
      magnitude |= (byte & ((1 << width) - 1)) << shift % 64
      more = byte[shift == 0 ? continued : 7] == 1
      shift += width
      width = 7
      return magnitude & (2**64 - 1) unless more
    end
  end

  def integer
    negative = @bytes[@pos][6] == 1
    magnitude = groups(5, 5, "decode_next_packetbuf_rbobj: buffer underrun decoding integer")
    signed = (negative ? -magnitude : magnitude) & (2**64 - 1)
    signed < 2**63 ? signed : signed - 2**64
  end

  def float(size, format, name)
    fault("#{name}: buffer underrun") if @pos + size > @bytes.size
    @pos += size
    @bytes[@pos - size, size].pack("C*").unpack(format)[0]
  end

  def string
    size = groups(7, 7, "decode_next_packetbuf_rbstr: buffer underrun decoding data length") & (2**32 - 1)
    fault("decode_next_packetbuf_rbstr: buffer underrun extracting data bytes") if @pos + size > @bytes.size && size > 0
    @pos += size
    size > 0 ? @bytes[@pos - size, size].pack("C*") : "".b
  end

  def hash(depth)
    result = {}
    until at_end?(0x09, "decode_packetbuf_rbhash: buffer underrun")
      key = value(depth + 1)
      result[key] = value(depth + 1)
    end
    result
  end

  def array(depth)
    result = []
    result << value(depth + 1) until at_end?(0x0B, "decode_packetbuf_rbarray: buffer underrun")
    result
  end

  def at_end?(mark, underrun)
    byte = @bytes[@pos] || fault(underrun)
    @pos += 1 if byte == mark
    byte == mark
  end
end
