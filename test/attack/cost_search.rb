# frozen_string_literal: true

require_relative "cost_rows"

# Finds the values that take the most memory per byte: tries all values of up to N bytes, each repeated to fill a
# payload. Of equally expensive values only one is tried: nil stands for all values of one byte, small Integers for
# plain keys.
class CostSearch
  SHOWN = 10

  def initialize(size)
    @size = size
    @values = {}
  end

  def run(longest)
    tried = (1..longest).flat_map { |bytes| values(bytes) }.map { |value| [times(value), value] }
    puts "Ruby #{RUBY_VERSION}, #{tried.size} values, each filling #{@size} bytes; the worst:"
    tried.sort.reverse.first(SHOWN).each do |times, value|
      puts format("%7.1f times  %s", times, Hex.encode(value).upcase)
    end
  end

  private

  # All values of exactly `bytes` bytes.
  def values(bytes)
    @values[bytes] ||= begin
      found = { 1 => ["\0".b], 2 => ["\x05\0".b], 3 => ["\x05\x01a".b] }.fetch(bytes, [])
      found += lists(bytes - 2, bytes - 2).map { |list| "\x0A".b + list + "\x0B".b }
      found + pairs(bytes - 2, 1).map { |list| "\x08".b + list + "\x09".b }
    end
  end

  # Lists of members with a total of `bytes`, none longer than the one before: the order does not matter.
  def lists(bytes, longest)
    return bytes.zero? ? [""] : [] if bytes <= 0
    (1..[bytes, longest].min).flat_map do |first|
      values(first).product(lists(bytes - first, first)).map(&:join)
    end
  end

  # Pairs of keys and values; the plain keys count up from `key`.
  def pairs(bytes, key)
    return bytes.zero? ? [""] : [] if bytes <= 0
    (1..bytes - 1).flat_map do |length|
      keys = length == 1 ? [(0x80 | key).chr.b] : values(length)
      (1..bytes - length).flat_map do |first|
        keys.product(values(first), pairs(bytes - length - first, key + 1)).map(&:join)
      end
    end
  end

  def times(value)
    reader, writer = IO.pipe
    child = fork do
      payload, reading = CostRows.decode(CostRows.array_of(value, @size))
      writer.puts reading.bytes.to_f / payload
      exit!(true)
    end
    writer.close
    Process.wait(child)
    Float(reader.read)
  ensure
    reader.close
  end
end
