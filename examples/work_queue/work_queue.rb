# frozen_string_literal: true

require "redis"
require_relative "payload"

# A queue for many processes on many hosts: a Redis stream with one consumer group.
#
#   NAME           the stream: one entry for each message not yet completed, its payload in the field "p"
#   NAME:results   a hash: the result's payload by message id
#   NAME:dead      a stream of messages that could not be processed, and the reasons
#
# A message that was delivered to a worker stays on Redis's list of pending messages until it is completed. One that is
# pending for longer than the lease is delivered to another worker. So nothing is lost, but a message may be processed
# more than once: after a crash, or by two workers when the first is slower than the lease. Its result counts once.
# Side effects of the work must be idempotent, for example keyed by the message's id.
class WorkQueue
  GROUP = "workers"

  # The worker that takes a message off the pending list decides its outcome, so it is completed or buried once,
  # whatever a slower worker does later. The stream need not keep the message: the group is its only reader.
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

  # Added first: whatever fails then, no message is lost.
  PUT_BACK = <<-LUA
    local entry = redis.call("XRANGE", KEYS[2], ARGV[2], ARGV[2])[1]
    if not entry then return false end
    for field = 1, #entry[2], 2 do
      if entry[2][field] == "p" then
        local id = redis.call("XADD", KEYS[1], "*", "p", entry[2][field + 1])
        redis.call("XDEL", KEYS[2], ARGV[2])
        return id
      end
    end
    return false
  LUA

  Message = Struct.new(:id, :payload, :deliveries)
  # A buried message, or whatever else another client of Redis has put there. entry: its id among the dead; id: the id
  # that it had in the queue
  DeadLetter = Struct.new(:entry, :id, :payload, :reason)
  # A message that a worker has. held: milliseconds
  Held = Struct.new(:id, :worker, :held, :deliveries)

  # lease is in milliseconds. It must be longer than a batch of messages takes, or work is done twice. timeout is in
  # seconds, for each command.
  def initialize(url, name, lease, timeout: 5)
    # No automatic retries: only the caller knows which commands may be repeated.
    @redis = Redis.new(url: url, timeout: timeout, reconnect_attempts: 0)
    @name = name
    @lease = lease
  end

  # Creates stream and group unless they exist. "0": messages added before the group existed are delivered too.
  def prepare
    @redis.xgroup(:create, @name, GROUP, "0", mkstream: true)
  rescue Redis::CommandError => e
    raise unless e.message.start_with?("BUSYGROUP")
  end

  # Adds a message and returns its id. After a lost connection it is unknown whether the message was added; adding it
  # again may duplicate it.
  def add(value)
    @redis.xadd(@name, { "p" => Payload.encode(value) })
  end

  # New messages for this worker; waits for them up to `wait` milliseconds.
  def take(worker, count, wait)
    streams = @redis.xreadgroup(GROUP, worker, @name, ">", count: count, block: wait)
    messages(streams.fetch(@name, []), 1)
  end

  # Takes over a message that another worker has held for longer than the lease, or returns nil.
  #
  # One at a time: if a message kills every worker that processes it, no other message is held at that moment, and only
  # its own delivery count grows. XAUTOCLAIM needs one command instead of two, but does not return the count.
  def take_over(worker)
    # The gem's own method does not support IDLE.
    (id, _, _, deliveries), = @redis.call("XPENDING", @name, GROUP, "IDLE", @lease, "-", "+", 1)
    return unless id

    # Of two competing workers, the second finds that the message is no longer idle and does not get it.
    messages(@redis.xclaim(@name, GROUP, worker, @lease, id), deliveries + 1).first
  end

  # Stores the result and removes the message from the queue, atomically. False: another worker was faster, and its
  # result counts.
  def complete(message, result)
    decide(COMPLETE, results_key, message.id, Payload.encode(result))
  end

  # Buries a message that cannot be processed. False as above.
  def bury(message, reason)
    decide(BURY, dead_key, message.id, message.payload, reason)
  end

  # Removes a worker that has stopped taking messages. One that still holds messages stays on the list, because they
  # would be removed with it; so do killed workers, at a few bytes each.
  def leave(worker)
    return unless @redis.xpending(@name, GROUP, "-", "+", 1, worker).empty?

    @redis.xgroup(:delconsumer, @name, GROUP, worker)
  end

  # The results by message id. They stay until somebody deletes them; do that only when no worker can still hold a
  # message, or a late second result would count as new.
  def results
    @redis.hgetall(results_key).map { |id, payload| [id, Payload.decode(payload)] }.to_h
  end

  # [id, reason] of the buried messages.
  def dead
    @redis.xrange(dead_key).map { |_, fields| fields.values_at("id", "reason") }
  end

  # Yields the buried messages, the oldest first, up to the one that is the newest now.
  def each_dead_letter
    newest = dead_letters(1).first
    from = "-"
    while newest && !(page = @redis.xrange(dead_key, from, newest.entry, count: 100)).empty?
      page.each { |entry| yield dead_letter(*entry) }
      from = "(#{page.last.first}"
    end
  end

  # The newest of the buried messages, the newest first.
  def dead_letters(count)
    @redis.xrevrange(dead_key, "+", "-", count: count).map { |entry| dead_letter(*entry) }
  end

  # The buried message with this id among the dead, or nil.
  def dead_letter_at(entry)
    found = @redis.xrange(dead_key, entry, entry).first
    found && dead_letter(*found)
  end

  # Takes a message from the dead and adds it to the queue again, as a new message whose id is returned. nil: it is not
  # there any more, or is no message.
  def put_back(entry)
    @redis.eval(PUT_BACK, [@name, dead_key], [GROUP, entry])
  end

  # Deletes a message from the dead. False: it is not there any more.
  def delete_dead(entry)
    @redis.xdel(dead_key, entry) == 1
  end

  # Counts of waiting, pending, completed and buried messages.
  def counts
    pending = @redis.xpending(@name, GROUP)["size"]
    # Between the commands messages may be completed.
    { waiting: [@redis.xlen(@name) - pending, 0].max, pending: pending, done: @redis.hlen(results_key),
      dead: @redis.xlen(dead_key) }
  end

  # Each worker by name, with the number of its messages and the milliseconds since it last asked for some.
  def workers
    @redis.xinfo(:consumers, @name, GROUP).map { |one| one.values_at("name", "pending", "idle") }
  end

  # The pending messages, the oldest first.
  def held(count)
    @redis.xpending(@name, GROUP, "-", "+", count).map do |one|
      Held.new(*one.values_at("entry_id", "consumer", "elapsed", "count"))
    end
  end

  # For how many milliseconds the oldest message that no worker has got has waited, by the clock of Redis. 0: there is
  # none.
  def oldest_wait
    last = @redis.xinfo(:groups, @name).find { |group| group["name"] == GROUP }["last-delivered-id"]
    id, = @redis.xrange(@name, "(#{last}", "+", count: 1).first
    return 0 unless id
    seconds, microseconds = @redis.time
    [seconds * 1000 + microseconds / 1000 - id.to_i, 0].max
  end

  private

  def decide(script, key, *arguments)
    @redis.eval(script, [@name, key], [GROUP, *arguments]) == 1
  end

  def messages(entries, deliveries)
    entries.map { |id, fields| Message.new(id, fields["p"].to_s, deliveries) }
  end

  def dead_letter(entry, fields)
    DeadLetter.new(entry, *fields.values_at("id", "p", "reason"))
  end

  def results_key
    "#{@name}:results"
  end

  def dead_key
    "#{@name}:dead"
  end
end
