# frozen_string_literal: true

require "socket"
require_relative "test_queue"

class WorkQueueTest < QueueTest
  def running(name)
    Program::RUNNING[name[/:(\d+):/, 1].to_i]
  end

  def held_by(worker)
    holding.find { |name, _| name.include?(":#{worker.pid}:") }.to_a[1].to_i
  end

  # The lines with this ending, of all workers' output.
  def lines(ending)
    @workers.flat_map { |worker| worker.output.lines(chomp: true) }.select { |line| line.end_with?(" #{ending}") }
  end

  def test_producer_and_workers_over_tcp_with_a_password
    port = Addrinfo.tcp("127.0.0.1", 0).bind { |socket| socket.local_address.ip_port }
    start_redis("--bind", "127.0.0.1", "--port", port.to_s, "--requirepass", "secret",
                url: "redis://:secret@127.0.0.1:#{port}")
    3.times { start_worker }
    producer = start("work_queue/producer.rb", "300", env: environment)
    assert_equal 0, producer.wait, producer.log
    assert_equal "added 300\nresults: 300, wrong: 0\n", producer.output
    assert_operator @workers.count { |worker| worker.output.include?("done") }, :>=, 2, "workers that took part"

    status = start("work_queue/status.rb", env: environment)
    assert_equal 0, status.wait, status.log
    assert_equal "waiting 0, pending 0, done 300, dead 0\n", status.output

    # Stopped by a signal, they exit and leave no trace.
    @workers.each { |worker| worker.signal("TERM") }
    assert_equal [0, 0, 0], @workers.map(&:wait)
    assert_empty holding
  end

  def test_values_of_every_kind_pass
    start_redis
    value = { "a" => [nil, true, -1, 1.5, "\xFF\r\n".b, "\u00E4"], 2 => {} }
    @queue.add(value)
    message = @queue.take("me", 1, 100).first
    assert_equal value, Payload.decode(message.payload)
    assert @queue.complete(message, value)
    assert_equal({ message.id => value }, @queue.results)
    refute @queue.complete(message, "again")
    assert_equal({ message.id => value }, @queue.results)
  end

  # kill -9 in the middle of a batch, again and again.
  def test_killed_workers
    start_redis
    numbers = {}
    kills = 0
    wanted = Integer(ENV.fetch("KILLS", 5))
    3.times { start_worker }
    last = {}
    limit = now + 60 + 5 * wanted
    while kills < wanted
      flunk("only #{kills} kills in time") if now > limit
      30.times { numbers[add(numbers.size, 0.01)] = numbers.size } if @queue.counts[:waiting] < 30
      held = holding
      # In the middle of a batch: the worker holds fewer messages than before, and still some.
      name, = held.find { |one, pending| pending > 0 && pending < last.fetch(one, 0) && running(one) }
      last = held
      next sleep(0.002) unless name

      running(name).stop("KILL")
      # A worker may have finished its batch before the signal arrived; such a kill does not count.
      kills += 1 if holding[name] > 0
      start_worker
    end
    all_done
    results = @queue.results
    assert_equal numbers.keys.sort, results.keys.sort
    assert_equal(numbers.map { |id, number| [id, number**2] }.sort, results.sort)
    assert_empty @queue.dead
    taken_over = @workers.flat_map { |worker| worker.log.scan(/(\S+): taken over$/) }.uniq.size
    assert_operator taken_over, :>=, 1
    puts "#{kills} workers killed in the middle of a batch: #{numbers.size} messages, #{results.size} results, " \
         "#{taken_over} messages taken over, #{lines("done before").size} results a second time, not counted"
  end

  # A slow worker is taken for dead: both workers do the work, one result counts.
  def test_a_slow_worker_is_late
    start_redis
    slow = start_worker({ "JOB_MS" => "60000" })
    id = add(7, 0.3)
    eventually("the slow one has it") { held_by(slow) == 1 }
    slow.signal("STOP")
    start_worker
    all_done
    eventually("the other says so") { lines("done") == ["#{id} done"] } # a worker says so after the queue knows
    slow.signal("CONT")
    eventually("the slow one finishes too") { slow.output == "#{id} done before\n" }
    assert_equal({ id => 49 }, @queue.results)
  end

  # A message that kills its workers is buried; the others of its batch are processed.
  def test_a_message_that_kills
    start_redis
    innocent = Array.new(4) { |number| add(number) }
    deadly = @queue.add({ "do" => "crash" })
    innocent += Array.new(4) { |number| add(number) }
    running = start_worker({ "DELIVERIES" => "2" })
    crashes = 0
    eventually("all is settled", 20, running) do
      if Process.waitpid(running.pid, Process::WNOHANG)
        Program::RUNNING.delete(running.pid)
        crashes += 1
        running = start_worker({ "DELIVERIES" => "2" })
      end
      @queue.counts == { waiting: 0, pending: 0, done: 8, dead: 1 }
    end
    assert_equal 2, crashes
    assert_equal [[deadly, "tried 2 times"]], @queue.dead
    assert_equal innocent.sort, @queue.results.keys.sort
  end

  def test_a_message_that_fails_is_tried_again_and_then_put_aside
    start_redis
    id = @queue.add({ "do" => "fail" })
    worker = start_worker({ "DELIVERIES" => "3" })
    all_done
    assert_equal [[id, "tried 3 times"]], @queue.dead
    assert_equal 3, worker.log.scan("#{id}: as told (RuntimeError)").size
    status = start("work_queue/status.rb", env: environment)
    assert_equal 0, status.wait, status.log
    assert_equal "waiting 0, pending 0, done 0, dead 1\ndead #{id}: tried 3 times\n", status.output
  end

  def test_bytes_that_are_no_value_are_put_aside
    start_redis
    redis = Redis.new(url: @redis.url)
    ids = ["\x0C", "\x07\x05ab", "\x00\x00", ""].map { |bytes| redis.xadd("jobs", { "p" => bytes.b }) }
    ids << redis.xadd("jobs", { "other" => "field" })
    start_worker
    all_done
    reasons = ["decode_next_packetbuf_rbobj: unrecognized protocol transport type",
               "decode_next_packetbuf_rbstr: buffer underrun extracting data bytes",
               "1 bytes behind the value"] + ["decode_next_packetbuf_rbobj: buffer underrun"] * 2
    assert_equal ids.zip(reasons), @queue.dead
  end

  # kill -9 of Redis itself: acknowledged writes are on its disk, and the workers reconnect.
  def test_redis_is_killed
    start_redis
    2.times { start_worker }
    numbers = Array.new(200) { |number| [add(number, 0.005), number**2] }.to_h
    eventually("both are at it") { @workers.all? { |worker| worker.output.include?("done") } }
    assert_operator @queue.counts[:done], :<, 150
    @redis.program.stop("KILL")
    sleep(0.3)
    @redis.start
    eventually("Redis is back", 10, @redis.program) { ready? }
    all_done
    assert_equal numbers, @queue.results
    @workers.each { |worker| assert_match(/; again in 0.1 s/, worker.log) }
  end

  # Two workers in separate network namespaces, Redis in a third, like separate hosts. The cable of one worker is pulled
  # in the middle of a batch.
  def test_workers_on_several_hosts
    skip("not asked for (--namespaces)") if ENV["NAMESPACES"].to_s.empty?
    spaces = %w[redis a b].map { |name| "vornq#{Process.pid}#{name}" }
    spaces.each { |space| sh("ip netns add #{space}") }
    inside = spaces.map { |space| ["ip", "netns", "exec", space] }
    # 192.0.2.0/24 is reserved for examples; nothing outside these namespaces can reach it.
    %w[a b].each_with_index do |name, number|
      sh("ip -n #{spaces[0]} link add name to-#{name} type veth peer name eth0 netns #{spaces[number + 1]}")
      sh("ip -n #{spaces[0]} addr add 192.0.2.#{number * 4 + 1}/30 dev to-#{name}")
      sh("ip -n #{spaces[number + 1]} addr add 192.0.2.#{number * 4 + 2}/30 dev eth0")
      sh("ip -n #{spaces[0]} link set to-#{name} up")
      sh("ip -n #{spaces[number + 1]} link set eth0 up")
    end
    # The test itself uses the socket, which needs no network. On a real network Redis needs a password.
    start_redis("--port", "6379", "--bind", "192.0.2.1", "192.0.2.5", "--protected-mode", "no",
                "--unixsocket", "#{@folder}/redis.sock", through: inside[0])
    on_a = start_worker({ "REDIS_URL" => "redis://192.0.2.1:6379" }, inside[1])
    on_b = start_worker({ "REDIS_URL" => "redis://192.0.2.5:6379" }, inside[2])
    numbers = Array.new(200) { |number| [add(number, 0.01), number**2] }.to_h
    eventually("both are at it") { @workers.all? { |worker| worker.output.include?("done") } }
    eventually("one is in the middle of a batch") { (2..9).cover?(held_by(on_a)) }
    sh("ip -n #{spaces[0]} link set to-a down")
    all_done
    assert_equal numbers, @queue.results
    assert_match(/: taken over$/, on_b.log)

    # Its commands time out; after reconnecting the cable it goes on.
    eventually("it notices", 20, on_a) { on_a.log.include?("; again in") }
    sh("ip -n #{spaces[0]} link set to-a up")
    on_b.stop
    id = add(9)
    all_done(30)
    assert_includes on_a.output, "#{id} done\n"
  ensure
    @programs.each { |program| program.stop("KILL") }
    @redis.program.stop("KILL") if @redis
    spaces.to_a.each { |space| system("ip netns del #{space} 2>/dev/null") }
  end

  def sh(command)
    assert system(command), command
  end

  def test_asked_to_end_a_worker_finishes_its_batch
    start_redis
    10.times { |number| add(number, 0.03) }
    worker = start_worker
    eventually("it is at it") { (1..9).cover?(@queue.counts[:done]) }
    worker.signal("TERM")
    assert_equal 0, worker.wait
    assert_equal({ waiting: 0, pending: 0, done: 10, dead: 0 }, @queue.counts)
  end
end
