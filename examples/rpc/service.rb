# frozen_string_literal: true

require "vorn_rpc/rpc"

# The methods of the server.
#
# The service, not the client, decides what a request may cost, so every number from a client is checked here.
module Service
  MAX_PAUSE = 10
  MAX_FILL = 1 << 21

  module_function

  def methods_by_name
    {
      "echo" => ->(value) { value },
      "add" => method(:add),
      "pause" => ->(seconds) { sleep(number(seconds, 0..MAX_PAUSE)); seconds },
      "fill" => ->(size) { "x" * number(size, 0..MAX_FILL, Integer) },
      "now" => -> { Time.now }, # has no encoding
      "fail" => -> { raise "as told" }
    }
  end

  # No range covers NaN, a String or nil.
  def number(value, range, kind = Numeric)
    return value if value.is_a?(kind) && range.cover?(value)
    refuse("bad arguments", "#{kind} from #{range.first} to #{range.last} wanted")
  end

  def add(one, other)
    refuse("bad arguments", "add takes Integers") unless one.is_a?(Integer) && other.is_a?(Integer)
    sum = one + other
    # Integers of more than 32 bits cannot be sent.
    refuse("overflow", "the sum needs more than 32 bits") unless sum.between?(-2**31, 2**31 - 1)
    sum
  end

  def refuse(code, text)
    raise VORN::RPC::Refused.new(code, text)
  end
end
