# frozen_string_literal: true

require "bigdecimal"
require "date"
require_relative "notation"

# Prints values as the table of packed values has them: in the notation of test/vectors/, and objects.
module PackingNotation
  module_function

  def of(value)
    Notation.of(value) do |object|
      case object
      when Struct then "@point:#{of(object.to_a)}"
      when Time then "@time:#{object.to_i},#{object.nsec},#{object.utc? ? 'nil' : object.utc_offset}"
      when Date then "@date:#{object.gregorian.strftime('%-Y-%-m-%-d')}"
      when BigDecimal then "@decimal:#{object.to_s('E').downcase}"
      when Rational then "@rational:#{object}"
      else raise ArgumentError, "no notation for #{object.class}"
      end
    end
  end
end
