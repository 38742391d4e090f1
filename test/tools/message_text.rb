# frozen_string_literal: true

require "strscan"
require_relative "../support/hex"

# Converts the notation of test/vectors/ to the text that the dissector shows for a message.
class MessageText
  def self.of(notation)
    new(notation).text
  end

  def self.quoted(bytes)
    escaped = bytes.each_byte.map { |byte|
      if byte < 0x20 || byte >= 0x80 then format('\x%02x', byte)
      elsif byte == 0x22 || byte == 0x5C then "\\#{byte.chr}"
      else
        byte.chr
      end
    }
    %("#{escaped.join}")
  end

  def initialize(notation)
    @in = StringScanner.new(notation)
  end

  def text
    text = value
    raise "not in the notation: #{@in.string}" unless @in.eos?
    text
  end

  private

  def value
    @in.skip(/ +/)
    if @in.scan(/nil|true|false|-?\d+/) then @in.matched
    elsif @in.scan(/d:(\h{16})/) then format_double(Hex.decode(@in[1]).unpack("G").first, @in[1])
    elsif @in.scan(/[bust]:((?:\h\h)*)/) then self.class.quoted(Hex.decode(@in[1]))
    elsif @in.skip(/\[/) then "[#{members.join(', ')}]"
    elsif @in.skip(/\{/) then "{#{entries.join(', ')}}"
    else
      raise "not in the notation: #{@in.string} at #{@in.pos}"
    end
  end

  # C prints the sign of NaN, Ruby does not.
  def format_double(number, bits)
    return bits.to_i(16) >> 63 == 1 ? "-nan" : "nan" if number.nan?
    number.infinite? ? format("%f", number).downcase : format("%f", number)
  end

  def members
    list = []
    list << value until @in.skip(/ *\]/)
    list
  end

  # The notation already has the entries in the order of their bytes.
  def entries
    list = []
    until @in.skip(/ *\}/)
      key = value
      raise "not an entry: #{@in.string} at #{@in.pos}" unless @in.skip(/=/)
      list << "#{key}=>#{value}"
    end
    list
  end
end
