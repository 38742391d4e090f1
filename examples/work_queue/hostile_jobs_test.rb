# frozen_string_literal: true

require_relative "test_queue"

# A client that can add jobs can do no lasting harm to the workers.
class HostileJobsTest < QueueTest
  # A job that never ends costs a worker its timeout on each delivery, and no other job more than that delay.
  def test_a_job_that_never_ends
    start_redis
    endless = add(1, 1e9)
    ids = Array.new(5) { |number| add(number) }
    workers = Array.new(2) { start_worker({ "JOB_MS" => "300", "DELIVERIES" => "2" }) }
    all_done
    assert_equal [[endless, "tried 2 times"]], @queue.dead
    assert_equal ids.each_with_index.map { |id, number| [id, number**2] }.to_h, @queue.results
    logs = workers.map(&:log).join
    assert_equal 2, logs.scan("#{endless}: execution expired (Timeout::Error)").size
    workers.each { |worker| worker.signal("TERM") }
    assert_equal [0, 0], workers.map(&:wait)
  end

  # The timeout of a job is the lease unless JOB_MS is given.
  def test_the_limit_of_time_is_the_lease
    start_redis
    short = add(3, LEASE / 1000.0 / 2)
    long = add(3, LEASE / 1000.0 * 3)
    start_worker({ "DELIVERIES" => "1" })
    all_done
    assert_equal({ short => 9 }, @queue.results)
    assert_equal [[long, "tried 1 times"]], @queue.dead
  end

  def test_numbers
    start_redis
    wrong_seconds = [Float::NAN, Float::INFINITY, -1, -0.001, -Float::INFINITY, "1", nil, [], {}, true, 1_000_000_001]
    wrong_numbers = [Float::NAN, 1.5, 2.0, "7" * 1000, nil, [7], { 7 => 7 }, false]
    no_jobs = [nil, true, 7, 1.5, "square", ["square"], []]
    ids = wrong_seconds.map { |seconds| add(2, seconds) } + wrong_numbers.map { |number| add(number) } +
          no_jobs.map { |job| @queue.add(job) }
    good = [0, 0.0, -0.0, 0.01].map { |seconds| add(-3, seconds) }
    worker = start_worker
    all_done
    reasons = ["Numeric from 0 to 1000000000 wanted"] * wrong_seconds.size +
              ["Integer from #{-2**63} to #{2**63 - 1} wanted"] * wrong_numbers.size + ["no Hash"] * no_jobs.size
    assert_equal ids.zip(reasons), @queue.dead
    assert_equal good.map { |id| [id, 9] }.to_h, @queue.results
    assert_operator worker.log.lines.map(&:bytesize).max, :<, 300, "what stands in a job is not logged"
  end

  # Two workers have the same message, because the first was slow: the result of the faster one counts.
  def test_a_message_ends_once
    start_redis
    ids = [add(1), add(2), add(3)]
    done, buried, both = @queue.take("me", 3, 100)
    assert @queue.complete(done, 1)
    refute @queue.bury(done, "late")
    assert @queue.bury(buried, "in time")
    refute @queue.complete(buried, 4)
    refute @queue.bury(buried, "again")
    assert @queue.complete(both, 9)
    refute @queue.complete(both, 10)
    assert_equal({ ids[0] => 1, ids[2] => 9 }, @queue.results)
    assert_equal [[ids[1], "in time"]], @queue.dead
    assert_equal [0, 0], @queue.counts.values_at(:waiting, :pending)
  end

  # Malformed entries of every kind in the stream. Each ends once, and the workers go on.
  def test_hostile_entries
    start_redis
    redis = Redis.new(url: @redis.url)
    ids = payloads(Random.new(Integer(ENV.fetch("SEED", 1)))).map { |bytes| redis.xadd("jobs", { "p" => bytes }) }
    ids += fields.map { |entry| redis.xadd("jobs", entry) }
    assert_operator ids.size, :>=, 227
    workers = Array.new(2) { start_worker({ "JOB_MS" => "50", "DELIVERIES" => "2" }) }
    good = add(12)
    all_done(60)
    ended = @queue.results.keys + @queue.dead.map(&:first)
    assert_equal (ids + [good]).sort, ended.sort
    assert_equal 144, @queue.results[good]
    workers.each { |worker| worker.signal("TERM") }
    assert_equal [0, 0], workers.map(&:wait)
    status = start("work_queue/status.rb", env: environment)
    assert_equal 0, status.wait, status.log
    assert_match(/\Awaiting 0, pending 0, done \d+, dead \d+\n/, status.output)
  end

  # An entry that is deleted while a worker holds it, and one that cannot be printed to a terminal.
  def test_entries_that_are_tampered_with
    start_redis
    redis = Redis.new(url: @redis.url)
    gone = add(1)
    @queue.take("another", 1, 100)
    redis.xdel("jobs", gone)
    redis.xadd("jobs:dead", { "id" => "\e[2J", "reason" => "\e]0;title\a" })
    redis.xadd("jobs:dead", { "other" => "field" })
    start_worker
    good = add(2)
    eventually("the other is done") { @queue.results == { good => 4 } }
    status = start("work_queue/status.rb", env: environment)
    assert_equal 0, status.wait, status.log
    refute_match(/[\e\a]/, status.output)
  end

  # A job truncated at each byte, with a byte changed, noise, and values that are not jobs.
  def payloads(random)
    job = Payload.encode({ "do" => "square", "number" => 7, "seconds" => 0.001 })
    cut = (0...job.bytesize).map { |size| job.byteslice(0, size) }
    changed = Array.new(120) { job.dup.tap { |bytes| bytes.setbyte(random.rand(bytes.bytesize), random.rand(256)) } }
    noise = Array.new(80) { random.bytes(1 + random.rand(60)) }
    odd = [job * 2, job + "\0", "\x0A" * 64 + "\x0B" * 64, "\x0A" * 65 + "\x0B" * 65, "\x0A" * 100_000,
           "\x07\xFF\xFF\xFF\x7F", "\x0A" + "\x00" * 200_000 + "\x0B", "\x08" + "\x00\x00" * 1000 + "\x09",
           Payload.encode({ "do" => "square", "number" => 7, "seconds" => 1e9 }),
           Payload.encode({ "do" => "x" * 100_000 }), Payload.encode({ "do" => ["square"] }),
           Payload.encode({ "do" => "fail" })]
    (cut + changed + noise + odd).map { |bytes| bytes.dup.force_encoding("BINARY") }
  end

  def fields
    [{ "q" => "x" }, { "" => "" }, { "p" => "" }, { "P" => "\x81" }, { "\xFF\n" => "\0" },
     Array.new(1000) { |number| ["f#{number}", "v"] }.to_h, { "other" => "x", "p" => "\x81" }]
  end
end
