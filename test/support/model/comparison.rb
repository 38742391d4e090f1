# frozen_string_literal: true

module Model
  TAINTS = RUBY_VERSION < "2.7"

  # A value with everything that `==` ignores: encodings, the order of entries, the bits of floats.
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

  # Whether two values have the same signature, and the same frozen and tainted states.
  def self.same?(one, other)
    return false unless one.class.equal?(other.class)
    case one
    when String
      one.encoding.equal?(other.encoding) && one.bytesize == other.bytesize && one.b == other.b &&
        one.frozen? == other.frozen? && (!TAINTS || one.tainted? == other.tainted?)
    when Float then one.eql?(other) ? one != 0 || 1 / one == 1 / other : [one].pack("G") == [other].pack("G")
    when Array then one.size == other.size && one.each_with_index.all? { |member, index| same?(member, other[index]) }
    when Hash then one.size == other.size && same?(one.keys, other.keys) && same?(one.values, other.values)
    else one.equal?(other) || one == other
    end
  end
end
