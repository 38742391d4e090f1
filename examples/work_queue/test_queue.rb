# frozen_string_literal: true

# What the tests of the queue share: a Redis, workers, and what is in the queue.

require_relative "../test_support"
require_relative "work_queue"

# A Redis of this test's own.
class TestRedis
  attr_reader :url, :program

  # On a socket in the folder, or where the arguments say.
  def initialize(folder, *arguments, url: nil, through: [])
    arguments = ["--port", "0", "--unixsocket", "#{folder}/redis.sock"] if arguments.empty?
    @url = url || "unix://#{folder}/redis.sock"
    @folder = folder
    # Every write is on disk before it is acknowledged, so that the server may be killed too.
    @command = through + ["redis-server", "--save", "", "--dir", folder, "--appendonly", "yes",
                          "--appendfsync", "always", *arguments]
    start
  end

  def start
    @program = Program.new(@folder, *@command)
  end
end

class QueueTest < ExampleTest
  LEASE = 400 # milliseconds

  def setup
    super
    @workers = []
  end

  def teardown
    @redis.program.stop("KILL") if @redis
  ensure
    super
  end

  # On a UNIX socket unless told otherwise.
  def start_redis(*arguments, **options)
    @redis = TestRedis.new(@folder, *arguments, **options)
    @queue = WorkQueue.new(@redis.url, "jobs", LEASE)
    eventually("Redis answers", 10, @redis.program) { ready? }
  end

  def ready?
    @queue.prepare
    true
  rescue Redis::BaseError
    @redis.program.stop if Process.waitpid(@redis.program.pid, Process::WNOHANG) # with what it says in the log
    false
  end

  def environment(options = {})
    { "REDIS_URL" => @redis.url, "LEASE_MS" => LEASE.to_s }.merge(options)
  end

  def start_worker(options = {}, through = [])
    @workers << start("work_queue/worker.rb", env: environment(options), through: through)
    @workers.last
  end

  def add(number, seconds = 0)
    @queue.add({ "do" => "square", "number" => number, "seconds" => seconds })
  end

  # How many messages each worker has, by the worker's name.
  def holding
    @monitor ||= Redis.new(url: @redis.url)
    @monitor.xinfo(:consumers, "jobs", WorkQueue::GROUP).map { |one| [one["name"], one["pending"]] }.to_h
  end

  def all_done(seconds = 20)
    eventually("all messages completed", seconds, @workers.last) do
      @queue.counts.values_at(:waiting, :pending) == [0, 0]
    end
  end
end
