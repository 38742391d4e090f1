# frozen_string_literal: true

require_relative "framing"

# What the server offers, apart from how it is reached. Both servers use it.
#
#   request  [id, method, arguments]
#   answer   [id, nil, result] or [id, [code, text], nil]
#
# The id is the client's: an Integer of 32 bits or a String. The answer bears it, so answers may come in any order.
class Service
  # What can go wrong with a request, as the client is told. Other failures become "failed".
  class Refused < StandardError
    attr_reader :code

    def initialize(code, text)
      super(text)
      @code = code
    end
  end

  # pause waits for some seconds: Kernel#sleep under threads, the reactor's under fibers.
  def initialize(log, &pause)
    @log = log
    @methods = {
      "echo" => ->(value) { value },
      "add" => method(:add),
      "pause" => ->(seconds) { pause.call(at_most(10, seconds)); seconds },
      "fill" => ->(size) { "x" * at_most(1 << 21, size) },
      "now" => -> { Time.now }
    }
  end

  def answer(request)
    id, name, arguments = request
    [id, nil, call(name, arguments)]
  rescue Refused => e
    failure(id, e.code, e.message)
  rescue StandardError => e
    # The log has the details; the peer gets no look inside.
    @log.error { "#{name}: #{e.message} (#{e.class}) at #{e.backtrace.first}" }
    failure(id, "failed", "the service failed")
  end

  def failure(id, code, text)
    [id, [code, text], nil]
  end

  # The answer's frame. A result that cannot be sent must be told too, or the client waits in vain.
  def frame(writer, answer)
    writer.frame(answer)
  rescue MessageTooLarge => e
    writer.frame(failure(answer[0], "too large", e.message))
  rescue RuntimeError => e # the encoder's
    @log.error("the result cannot be sent: #{e.message}")
    writer.frame(failure(answer[0], "failed", "the result cannot be sent"))
  end

  # Whoever sends anything else than requests does not speak this protocol.
  def check(request)
    ok = request.is_a?(Array) && request.size == 3 &&
         (request[0].is_a?(Integer) || request[0].is_a?(String)) &&
         request[1].is_a?(String) && request[2].is_a?(Array)
    raise BadFrame, "not a request" unless ok
  end

  private

  # A name from outside finds what is in the table and nothing else: never send(name).
  def call(name, arguments)
    body = @methods.fetch(name) { raise Refused.new("no such method", "no method #{name[0, 40].inspect}") }
    unless body.arity == arguments.size
      raise Refused.new("bad arguments", "#{name} takes #{body.arity}, not #{arguments.size}")
    end

    body.call(*arguments)
  end

  # What one request may cost is the service's decision, not the client's.
  def at_most(limit, number)
    raise Refused.new("bad arguments", "#{number} is more than #{limit}") if number > limit

    number
  end

  def add(one, other)
    raise Refused.new("bad arguments", "add takes Integers") unless one.is_a?(Integer) && other.is_a?(Integer)

    sum = one + other
    # Sent as it is, it would arrive as its low 32 bits.
    raise Refused.new("overflow", "the sum needs more than 32 bits") unless sum.between?(-2**31, 2**31 - 1)

    sum
  end
end
