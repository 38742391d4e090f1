# frozen_string_literal: true

# The value that a C++ peer returns: variants have no encodings, so strings come back as UTF-8, and hash keys come back
# as binary, in the order of their bytes; the peer of this demonstration also turns symbols into strings.
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
