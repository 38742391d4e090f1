# frozen_string_literal: true

require "json"
require_relative "../support/hex"
require_relative "message_text"

# Converts the values of vorn-inspect --json: to the text that the library renders, and to the notation of
# test/vectors/ without encodings of strings.
module JsonText
  module_function

  def text(value)
    case value
    when nil then "nil"
    when Float then format("%f", value)
    when String then MessageText.quoted(value.b)
    when Array then "[#{value.map { |element| text(element) }.join(', ')}]"
    when Hash then special(value) { |kind, content| send("text_of_#{kind}", content) }
    else value.to_s
    end
  end

  def notation(value)
    case value
    when nil then "nil"
    when Float then "d:" + Hex.digits([value].pack("G"))
    when String then "t:" + Hex.digits(value)
    when Array then "[#{value.map { |element| notation(element) }.join(' ')}]"
    when Hash then special(value) { |kind, content| send("notation_of_#{kind}", content) }
    else value.to_s
    end
  end

  def special(object)
    kind = object.size == 1 && object.keys.first[/\A\$(bytes|double|hash)\z/, 1]
    return yield kind, object.values.first if kind
    raise "name with a leading dollar sign: #{object}" if object.keys.any? { |key| key.start_with?("$") }
    yield "hash", object.to_a
  end

  def text_of_bytes(digits)
    MessageText.quoted(Hex.decode(digits))
  end

  # C prints the sign of NaN.
  def text_of_double(bits)
    number = Hex.decode(bits).unpack("G").first
    sign = bits.to_i(16) >> 63 == 1 ? "-" : ""
    sign + (number.nan? ? "nan" : "inf")
  end

  def text_of_hash(pairs)
    "{#{in_order(pairs).map { |key, value| "#{text(key)}=>#{text(value)}" }.join(', ')}}"
  end

  def notation_of_bytes(digits)
    "t:" + digits.upcase
  end

  def notation_of_double(bits)
    "d:" + bits.upcase
  end

  def notation_of_hash(pairs)
    "{#{in_order(pairs).map { |key, value| "#{notation(key)}=#{notation(value)}" }.join(' ')}}"
  end

  def in_order(pairs)
    pairs.sort_by { |key, _| key.is_a?(Hash) ? Hex.decode(key["$bytes"]) : key.b }
  end
end
