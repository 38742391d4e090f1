# frozen_string_literal: true

require "vorn_rpc/stream"
require_relative "bad_message"

# The methods of the server, independent of the transport. Both servers use it.
#
#   request  [id, method, arguments]
#   answer   [id, nil, result] or [id, [code, text], nil]
#
# The client chooses the id: an Integer of 32 bits or a short String. The answer repeats it, so answers may come in any
# order.
class Service
  MIN_ID = -2**31 # others would be cut to their low 32 bits
  MAX_ID = 2**31 - 1
  MAX_ID_BYTES = 64 # leaves room for the error answer, which repeats the id

  # Every exception that a request can cause; the rest are signals and the end of the process.
  FAILURES = [StandardError, ScriptError, NoMemoryError, SystemStackError].freeze

  # A failure that the client may see. Other failures become "failed".
  class Refused < StandardError
    attr_reader :code

    def initialize(code, text)
      super(text)
      @code = code
    end
  end

  # pause waits for some seconds: Kernel#sleep with threads, the reactor's sleep with fibers.
  def initialize(log, &pause)
    @log = log
    @methods = {
      "echo" => ->(value) { value },
      "add" => method(:add),
      "pause" => ->(seconds) { pause.call(number(seconds, 0..10)); seconds },
      "fill" => ->(size) { "x" * number(size, 0..1 << 21, Integer) },
      "now" => -> { Time.now },
      "fail" => -> { raise "as told" }
    }
  end

  def answer(request)
    id, name, arguments = request
    [id, nil, call(name, arguments)]
  rescue Refused => e
    failure(id, e.code, e.message)
  rescue *FAILURES => e
    # The log has the details; the client does not see the server's internals.
    @log.error { "#{name}: #{e.message} (#{e.class}) at #{e.backtrace.first}" }
    failure(id, "failed", "the service failed")
  end

  def failure(id, code, text)
    [id, [code, text], nil]
  end

  # The answer's frame. A result that cannot be sent becomes an error: otherwise the client would wait for its timeout.
  def frame(writer, answer)
    writer.frame(answer)
  rescue VORN::Stream::MessageTooLarge => e
    writer.frame(failure(answer[0], "too large", e.message))
  rescue StandardError => e # raised by the encoder
    @log.error("the result cannot be sent: #{e.message}")
    writer.frame(failure(answer[0], "failed", "the result cannot be sent"))
  end

  # A client that sends anything but requests does not speak this protocol.
  def check(request)
    ok = request.is_a?(Array) && request.size == 3 &&
         id?(request[0]) && request[1].is_a?(String) && request[2].is_a?(Array)
    raise BadMessage, "not a request" unless ok
  end

  private

  def id?(value)
    value.is_a?(String) ? value.bytesize <= MAX_ID_BYTES : value.is_a?(Integer) && value >= MIN_ID && value <= MAX_ID
  end

  # A name from outside is looked up in the table, never passed to send.
  def call(name, arguments)
    body = @methods.fetch(name) { raise Refused.new("no such method", "no method #{name[0, 40].inspect}") }
    unless body.arity == arguments.size
      raise Refused.new("bad arguments", "#{name} takes #{body.arity}, not #{arguments.size}")
    end

    body.call(*arguments)
  end

  # The service, not the client, decides what a request may cost, so every number from a client is checked here. No
  # range covers NaN, a String or nil.
  def number(value, range, kind = Numeric)
    return value if value.is_a?(kind) && range.cover?(value)

    raise Refused.new("bad arguments", "#{kind} from #{range.first} to #{range.last} wanted")
  end

  def add(one, other)
    raise Refused.new("bad arguments", "add takes Integers") unless one.is_a?(Integer) && other.is_a?(Integer)

    sum = one + other
    # Unchecked, it would be cut to its low 32 bits.
    raise Refused.new("overflow", "the sum needs more than 32 bits") unless sum.between?(-2**31, 2**31 - 1)

    sum
  end
end
