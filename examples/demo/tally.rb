# frozen_string_literal: true

# A checksum that both sides compute over a value and compare: the number of values, the number of bytes in strings and
# symbols, and a sum over those bytes that depends on the order of the values. All stay below 2**31, so that they can be
# sent. Hash entries count in the order of their keys' bytes, as a C++ peer stores them. Keys are strings.
class Tally
  def self.of(value)
    new.add(value).to_h
  end

  def initialize
    @values = @bytes = @sum = 0
  end

  def add(value)
    @values += 1
    case value
    when String then text(value)
    when Symbol then text(value.to_s)
    when Array then value.each { |member| add(member) }
    when Hash then value.sort_by { |key, _| key }.each { |key, member| add(key).add(member) }
    end
    self
  end

  def to_h
    { "values" => @values, "bytes" => @bytes, "sum" => @sum }
  end

  private

  def text(string)
    @bytes += string.bytesize
    @sum = (@sum + @values * string.sum(31)) % 2**31
  end
end
