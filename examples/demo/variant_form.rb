# frozen_string_literal: true

# What a value is when it comes back from a C++ peer: variants know no encodings, so strings come back as UTF-8 and
# hash keys as binary, in the order of their bytes; and the peer of this demonstration takes symbols as strings.
module VariantForm
  module_function

  def of(value)
    case value
    when Symbol then of(value.to_s)
    when String then value.dup.force_encoding(Encoding::UTF_8)
    when Array then value.map { |member| of(member) }
    when Hash then Hash[value.map { |key, member| [key.b, of(member)] }.sort_by(&:first)]
    else value
    end
  end
end
