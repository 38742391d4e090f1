# frozen_string_literal: true

# A worker. Start as many as you like, on as many hosts as you like:
#
#   REDIS_URL=redis://:PASSWORD@HOST:6379 ruby -Ilib examples/work_queue/worker.rb
#
# REDIS_URL   where Redis is (default redis://127.0.0.1:6379); unix:///PATH for a socket
# QUEUE       the queue's name (default jobs)
# LEASE_MS    after how long a message of another worker is taken over (default 30000)
# JOB_MS      timeout of a job (default: the lease, after which another worker takes it over)
# BATCH       messages taken at once (default 10)
# DELIVERIES  how often a message is tried (default 5)
#
# On TERM and INT it finishes its batch and exits.

require "logger"
require "securerandom"
require "socket"
require "timeout"
require_relative "work_queue"

# A job that no retry can complete.
class BadJob < StandardError; end

class Worker
  WAIT_MS = 1000           # for new messages
  MAX_RETRY_SECONDS = 5    # between attempts to reach Redis

  def initialize(queue, name, lease, job_time, batch, deliveries, log)
    @queue = queue
    @name = name
    @lease = lease
    @job_time = job_time # milliseconds too
    @batch = batch
    @deliveries = deliveries
    @log = log
    @stopping = false
    @look = 0 # when to look for abandoned messages again
  end

  def stop
    @stopping = true
  end

  # Yields each message's value; the block returns the result.
  def run(&work)
    delay = 0.1
    until @stopping
      begin
        @queue.prepare
        until @stopping
          batch.each { |message| process(message, &work) }
          delay = 0.1
        end
      rescue Redis::BaseConnectionError, Redis::CommandError => e
        # Redis restarts, is loading its file, was replaced by an empty one, or is unreachable. The messages that this
        # worker held are delivered again, to any worker.
        @log.warn("#{e.message.strip} (#{e.class}); again in #{delay} s")
        sleep(delay)
        delay = [delay * 2, MAX_RETRY_SECONDS].min
      end
    end
    @queue.leave(@name)
  rescue Redis::BaseError => e
    @log.warn("left without a word: #{e.message.strip}")
  end

  private

  # Abandoned messages first: they have waited longest. The worker looks for them several times per lease.
  def batch
    now = Process.clock_gettime(Process::CLOCK_MONOTONIC, :millisecond)
    if now >= @look
      abandoned = @queue.take_over(@name)
      if abandoned
        @log.info("#{abandoned.id}: taken over")
        return [abandoned]
      end
      @look = now + @lease / 4
    end
    @queue.take(@name, @batch, [WAIT_MS, @lease / 4].min)
  end

  def process(message)
    if message.deliveries > @deliveries
      # Every worker that had it died or failed.
      @queue.bury(message, "tried #{@deliveries} times")
      return @log.error("#{message.id}: given up")
    end
    kept = @queue.complete(message, result_of(message) { |value| yield(value) })
    puts "#{message.id} #{kept ? "done" : "done before"}"
  rescue BadJob => e
    @queue.bury(message, e.message)
    @log.error("#{message.id}: #{e.message}; put aside")
  rescue Redis::BaseError
    raise
  rescue StandardError => e
    # It stays pending, so it is delivered again when the lease is over.
    @log.error("#{message.id}: #{e.message} (#{e.class})")
  end

  # A job that never ends would block every worker in turn. Timeout cannot interrupt native code: such work needs a
  # separate process that can be killed.
  def result_of(message)
    value =
      begin
        Payload.decode(message.payload)
      rescue RuntimeError => e
        raise BadJob, e.message
      end
    Timeout.timeout(@job_time / 1000.0) { yield(value) }
  end
end

# Every number of a job is checked here. No range covers NaN, a String or nil.
def number(value, range, kind = Numeric)
  return value if value.is_a?(kind) && range.cover?(value)

  raise BadJob, "#{kind} from #{range.first} to #{range.last} wanted"
end

# The work of this example: squares a number.
WORK = lambda do |job|
  raise BadJob, "no Hash" unless job.is_a?(Hash)

  case job["do"]
  when "square"
    sleep(number(job.fetch("seconds", 0), 0..1_000_000_000))
    square = number(job["number"], -2**63..2**63 - 1, Integer)**2
    # Unchanged, it would be cut to its low 32 bits.
    square < 2**31 ? square : square.to_s
  when "fail" then raise "as told"
  when "crash" then Process.kill("KILL", Process.pid)
  else raise ArgumentError, "unknown job"
  end
end

if $PROGRAM_NAME == __FILE__
  $stdout.sync = true
  lease = Integer(ENV.fetch("LEASE_MS", 30_000))
  queue = WorkQueue.new(ENV.fetch("REDIS_URL", "redis://127.0.0.1:6379"), ENV.fetch("QUEUE", "jobs"), lease)
  # Unique for each process that ever runs: Redis would take two workers of one name for the same.
  name = "#{Socket.gethostname}:#{Process.pid}:#{SecureRandom.hex(4)}"
  worker = Worker.new(queue, name, lease, Integer(ENV.fetch("JOB_MS", lease)), Integer(ENV.fetch("BATCH", 10)),
                      Integer(ENV.fetch("DELIVERIES", 5)), Logger.new($stderr))
  %w[TERM INT].each { |signal| trap(signal) { worker.stop } }
  worker.run(&WORK)
end
