# frozen_string_literal: true

module Model
  # The conversion of arguments to numbers. A failing conversion raises what the interpreter's own methods raise: it
  # calls one of them, Array#at.
  module Conversions
    CUT = 2**32 - 1
    BITS = [0].pack("l!").bytesize * 8 # of a C long
    LONG = (-2**(BITS - 1)...2**(BITS - 1)).freeze
    UNSIGNED_LONG = (-2**(BITS - 1)...2**BITS).freeze
    LONG_LONG = (-2**63...2**63).freeze

    module_function

    # The low 32 bits as an unsigned number.
    def unsigned_32(value)
      unsigned_long(value) & CUT
    end

    # The low 32 bits as a signed number.
    def signed_32(value)
      cut = signed_long(value) & CUT
      cut < 2**31 ? cut : cut - 2**32
    end

    def unsigned_long(value)
      number = integer(value, UNSIGNED_LONG)
      return number if UNSIGNED_LONG.cover?(number)
      raise RangeError, too_big.sub("long'", "unsigned long'") if number.abs >= 2**BITS
      raise RangeError, "bignum out of range of unsigned long"
    end

    def signed_long(value)
      number = integer(value, LONG)
      raise RangeError, too_big unless LONG.cover?(number)
      number
    end

    # A Float is truncated towards 0 and must be in the range; other objects are converted with to_int.
    def integer(value, range)
      case value
      when Integer then value
      when Float
        [].at(value) unless range.cover?(value)
        value.to_i
      when nil, true, false, String, Symbol, Array, Hash then [].at(value)
      else
        [].at(value) unless value.respond_to?(:to_int)
        number = value.to_int
        return number if number.is_a?(Integer)
        raise TypeError, "can't convert #{value.class} to Integer (#{value.class}#to_int gives #{number.class})"
      end
    end

    # The interpreter's text, whose quotation marks depend on its version.
    def too_big
      [].at(2**64)
    rescue RangeError => error
      error.message
    end
  end
end
