# frozen_string_literal: true

require_relative "hex"

# Prints a Ruby object in the notation of test/vectors/, which distinguishes what `==` and `inspect` do not: a double's
# bits, a string's encoding, a symbol's bytes.
module Notation
  module_function

  # Of an object of another class it is what the block says.
  def of(object, &other)
    case object
    when nil then "nil"
    when false then "false"
    when true then "true"
    when Integer then object.to_s
    when Float then "d:" + Hex.digits([object].pack("G"))
    when Symbol then "s:" + Hex.digits(object.to_s)
    when String then prefix(object) + Hex.digits(object)
    when Array then "[" + object.map { |member| of(member, &other) }.join(" ") + "]"
    when Hash then "{" + object.map { |key, value| of(key, &other) + "=" + of(value, &other) }.join(" ") + "}"
    else other ? yield(object) : raise(ArgumentError, "no notation for #{object.class}")
    end
  end

  def prefix(string)
    case string.encoding
    when Encoding::ASCII_8BIT then "b:"
    when Encoding::UTF_8 then "u:"
    else raise ArgumentError, "no notation for a string in #{string.encoding}"
    end
  end
end
