# frozen_string_literal: true

# Shared by the tests of the queue: a Redis server, workers, and the queue's contents.

require_relative "../test_support"
require_relative "work_queue"

# A Redis server for this test only.
class TestRedis
  attr_reader :url, :program

  # Listens on a socket in the folder, or as the arguments say.
  def initialize(folder, *arguments, url: nil, through: [])
    arguments = ["--port", "0", "--unixsocket", "#{folder}/redis.sock"] if arguments.empty?
    @url = url || "unix://#{folder}/redis.sock"
    @folder = folder
    # Every write reaches the disk before it is acknowledged, so that the tests may kill the server too.
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

  # Starts Redis on a UNIX socket unless told otherwise.
  def start_redis(*arguments, **options)
    @redis = TestRedis.new(@folder, *arguments, **options)
    @queue = WorkQueue.new(@redis.url, "jobs", LEASE)
    eventually("Redis answers", 10, @redis.program) { ready? }
  end

  def ready?
    @queue.prepare
    true
  rescue Redis::BaseError
    @redis.program.stop if Process.waitpid(@redis.program.pid, Process::WNOHANG) # its log then says why
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

  # The number of messages that each worker holds, by name.
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
