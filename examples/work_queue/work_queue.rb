# frozen_string_literal: true

require "redis"
require_relative "payload"

# A queue that many processes on many hosts share: a Redis stream with one consumer group.
#
#   NAME           the stream: one entry for each message not yet completed, its payload in the field "p"
#   NAME:results   a hash: the result's payload by message id
#   NAME:dead      a stream of messages that could not be processed, and why
#
# A message that was given to a worker stays on Redis's list of pending messages until it is completed. One that is
# pending for longer than the lease is given to another worker. So nothing is lost, but a message may be processed
# more than once: after a crash, or by two workers when the first is slower than the lease. Its result counts once.
# What the work does elsewhere has to bear being done twice, most easily by doing it under the message's id.
class WorkQueue
  GROUP = "workers"

  # What becomes of a message is decided by who takes it off the list of pending ones, so it is completed or put aside,
  # once, whatever a slower worker does later. The group is the only reader, so the stream need not remember it.
  COMPLETE = <<-LUA
    if redis.call("XACK", KEYS[1], ARGV[1], ARGV[2]) == 0 then return 0 end
    redis.call("XDEL", KEYS[1], ARGV[2])
    return redis.call("HSETNX", KEYS[2], ARGV[2], ARGV[3])
  LUA
  BURY = <<-LUA
    if redis.call("XACK", KEYS[1], ARGV[1], ARGV[2]) == 0 then return 0 end
    redis.call("XDEL", KEYS[1], ARGV[2])
    redis.call("XADD", KEYS[2], "*", "id", ARGV[2], "p", ARGV[3], "reason", ARGV[4])
    return 1
  LUA

  Message = Struct.new(:id, :payload, :deliveries)

  # lease is in milliseconds. It must be longer than a batch of messages takes, or work is done twice.
  def initialize(url, name, lease)
    # The commands are repeated by whoever calls, who knows which of them bear it.
    @redis = Redis.new(url: url, timeout: 5, reconnect_attempts: 0)
    @name = name
    @lease = lease
  end

  # Makes stream and group unless they are there. "0": also what was added before the group existed is delivered.
  def prepare
    @redis.xgroup(:create, @name, GROUP, "0", mkstream: true)
  rescue Redis::CommandError => e
    raise unless e.message.start_with?("BUSYGROUP")
  end

  # Adds a message and returns its id. After a lost connection it is not known whether the message was added; adding
  # it again may make it two.
  def add(value)
    @redis.xadd(@name, { "p" => Payload.encode(value) })
  end

  # New messages for this worker, waiting for them up to so many milliseconds.
  def take(worker, count, wait)
    streams = @redis.xreadgroup(GROUP, worker, @name, ">", count: count, block: wait)
    messages(streams.fetch(@name, []), 1)
  end

  # A message that another worker had for longer than the lease, or nil.
  #
  # One at a time: if this is a message that kills whoever processes it, no other message is held when it does, and
  # only its own deliveries grow. XAUTOCLAIM would need one command instead of two, but does not tell the deliveries.
  def take_over(worker)
    # The gem's own method does not know IDLE.
    (id, _, _, deliveries), = @redis.call("XPENDING", @name, GROUP, "IDLE", @lease, "-", "+", 1)
    return unless id

    # Of two workers that try, the second finds the message no longer idle and does not get it.
    messages(@redis.xclaim(@name, GROUP, worker, @lease, id), deliveries + 1).first
  end

  # Keeps the result and takes the message off the queue, both or neither. False: another worker was faster, and what
  # it did stands.
  def complete(message, result)
    decide(COMPLETE, results_key, message.id, Payload.encode(result))
  end

  # Puts a message aside that nobody can process. False as above.
  def bury(message, reason)
    decide(BURY, dead_key, message.id, message.payload, reason)
  end

  # Forgets a worker that takes nothing any more. One that still has messages stays on the list, since they would go
  # with it; so do workers that were killed, a few bytes each.
  def leave(worker)
    return unless @redis.xpending(@name, GROUP, "-", "+", 1, worker).empty?

    @redis.xgroup(:delconsumer, @name, GROUP, worker)
  end

  # The results by message id. They stay until somebody deletes them; do so only when no worker can still be at a
  # message, or a late second result counts as new.
  def results
    @redis.hgetall(results_key).map { |id, payload| [id, Payload.decode(payload)] }.to_h
  end

  # [id, reason] of the messages put aside.
  def dead
    @redis.xrange(dead_key).map { |_, fields| fields.values_at("id", "reason") }
  end

  # What is waiting, what workers hold, what is done, what was put aside.
  def counts
    pending = @redis.xpending(@name, GROUP)["size"]
    { waiting: @redis.xlen(@name) - pending, pending: pending, done: @redis.hlen(results_key),
      dead: @redis.xlen(dead_key) }
  end

  private

  def decide(script, key, *arguments)
    @redis.eval(script, [@name, key], [GROUP, *arguments]) == 1
  end

  def messages(entries, deliveries)
    entries.map { |id, fields| Message.new(id, fields["p"].to_s, deliveries) }
  end

  def results_key
    "#{@name}:results"
  end

  def dead_key
    "#{@name}:dead"
  end
end
