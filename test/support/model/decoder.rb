# frozen_string_literal: true

module Model
  # Decodes the value at a buffer's position in two passes: the first checks it without allocating objects, the second
  # builds it. Only the end of a pass, even of a failing one, moves the buffer's position: to where reading stopped.
  class Decoder
    VALUE = "decode_next_packetbuf_rbobj: "
    STRING = "decode_next_packetbuf_rbstr: "

    def self.check(buffer, maxdepth)
      new(buffer, maxdepth, false, false).run
    end

    def self.read(buffer, maxdepth, preserve_symbols)
      start = buffer.pos
      check(buffer, maxdepth)
      buffer.seek(start)
      new(buffer, maxdepth, preserve_symbols, true).run
    end

    def initialize(buffer, maxdepth, preserve_symbols, building)
      @buffer = buffer
      @maxdepth = maxdepth
      @preserve_symbols = preserve_symbols
      @building = building
      @pos = buffer.pos
    end

    def run
      value(1)
    ensure
      @buffer.seek(@pos)
    end

    private

    def fault(message)
      raise message
    end

    # The byte at the position, or nil outside the payload.
    def byte
      @buffer.readable?(@pos) ? @buffer.data.getbyte(@pos) : nil
    end

    def value(depth)
      fault(VALUE + "maxdepth exceeded") if depth > @maxdepth
      type = byte || fault(VALUE + "buffer underrun")
      return integer if type >= 0x80
      @pos += 1
      case type
      when 0x00 then nil
      when 0x01 then false
      when 0x02 then true
      when 0x03 then float(4, "g", "decode_packetbuf_rbfloat")
      when 0x04 then float(8, "G", "decode_packetbuf_rbdouble")
      when 0x05 then string("BINARY")
      when 0x06 then symbol
      when 0x07 then string("UTF-8")
      when 0x08 then hash(depth)
      when 0x0A then array(depth)
      else fault(VALUE + "unrecognized protocol transport type")
      end
    end

    # Reads a varint, whose first group has its own width. Shifts wrap around modulo 64.
    def groups(first_bits, continued, underrun)
      magnitude = 0
      shift = 0
      width = first_bits
      loop do
        group = byte || fault(underrun)
        @pos += 1
        magnitude |= (group & ((1 << width) - 1)) << shift % 64
        more = group[shift == 0 ? continued : 7] == 1
        shift += width
        width = 7
        return magnitude & (2**64 - 1) unless more
      end
    end

    def integer
      negative = byte[6] == 1
      magnitude = groups(5, 5, VALUE + "buffer underrun decoding integer")
      signed = (negative ? -magnitude : magnitude) & (2**64 - 1)
      signed < 2**63 ? signed : signed - 2**64
    end

    # All bytes must be in the payload.
    def float(size, format, name)
      fault("#{name}: buffer underrun") unless @buffer.readable?(@pos + size - 1)
      @pos += size
      @buffer.data[@pos - size, size].unpack(format)[0]
    end

    # The length must be in the payload; the body only has to be stored.
    def string(encoding)
      size = groups(7, 7, STRING + "buffer underrun decoding data length") & (2**32 - 1)
      if size > 0 && @pos + size > @buffer.data.bytesize
        fault(STRING + "buffer underrun extracting data bytes")
      end
      @pos += size
      return nil unless @building
      string = @buffer.data[@pos - size, size].force_encoding(encoding)
      TAINTS ? string.taint : string
    end

    def symbol
      name = string("UTF-8")
      @building && @preserve_symbols ? name.to_sym : name
    end

    def hash(depth)
      result = {}
      until at_end?(0x09, "decode_packetbuf_rbhash: buffer underrun")
        key = value(depth + 1)
        member = value(depth + 1)
        result[key] = member if @building
      end
      result
    end

    def array(depth)
      result = []
      until at_end?(0x0B, "decode_packetbuf_rbarray: buffer underrun")
        member = value(depth + 1)
        result << member if @building
      end
      result
    end

    def at_end?(mark, underrun)
      type = byte || fault(underrun)
      @pos += 1 if type == mark
      type == mark
    end
  end
end
