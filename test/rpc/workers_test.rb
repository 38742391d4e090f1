# frozen_string_literal: true

require_relative "helper"

# The threads of a server, with a Queue in place of connections: what it holds are lists of jobs that arrive together.
class RpcWorkersTest < RpcTest
  Workers = VORN::RPC.const_get(:Workers)

  # Yields workers, and the Queue that their leader waits for. nil ends them.
  def with_workers(count)
    workers = Workers.new(count)
    arriving = Queue.new
    thread = Thread.new do
      workers.run do
        jobs = arriving.pop
        @collector = Thread.current
        jobs && jobs.each { |job| workers.add(&job) }
      end
    end
    yield workers, arriving
    arriving << nil
    assert thread.join(10), "the workers do not end"
  ensure
    thread.kill.join
    workers.finish
  end

  # Jobs that report their number, and wait until the test lets them go on.
  def blocked_jobs(count, begun, gate)
    Array.new(count) { |number| -> { begun << number; gate.pop } }
  end

  def take(queue, count)
    within { Array.new(count) { queue.pop } }
  end

  # However they arrive: one after the other, or at once.
  def test_jobs_run_at_the_same_time
    [1, 6].each do |together|
      with_workers(6) do |_, arriving|
        begun, gate = Queue.new, Queue.new
        blocked_jobs(6, begun, gate).each_slice(together) { |jobs| arriving << jobs }
        assert_equal [*0..5], take(begun, 6).sort
        6.times { gate << nil }
      end
    end
  end

  def test_no_more_of_them_than_were_asked_for
    with_workers(2) do |_, arriving|
      begun, gate = Queue.new, Queue.new
      arriving << blocked_jobs(7, begun, gate)
      assert_equal [0, 1], take(begun, 2).sort
      (2..6).each do |number|
        sleep(0.01)
        assert_predicate begun, :empty?
        gate << nil
        assert_equal [number], take(begun, 1)
      end
      2.times { gate << nil }
    end
  end

  # Requests are read, and deadlines kept, whatever the jobs do.
  def test_a_thread_leads_while_all_jobs_wait
    with_workers(2) do |_, arriving|
      begun, gate = Queue.new, Queue.new
      arriving << blocked_jobs(2, begun, gate)
      take(begun, 2)
      3.times do
        arriving << []
        eventually("somebody leads") { arriving.empty? && arriving.num_waiting == 1 }
      end
      2.times { gate << nil }
    end
  end

  # Whether it is the first for a while, and where it stands among those that arrive with it.
  def test_a_long_job_does_not_keep_the_others_waiting
    with_workers(3) do |_, arriving|
      40.times do |turn|
        done, gate = Queue.new, Queue.new
        short_jobs(arriving, turn.odd? ? 150 : 1)
        sleep(0.01) if turn % 4 > 1
        jobs = Array.new(4) { |number| -> { done << number } }
        jobs.insert(turn % 5, -> { gate.pop; done << :long })
        arriving << jobs
        assert_equal [0, 1, 2, 3], take(done, 4).sort
        gate << nil
        assert_equal [:long], take(done, 1)
      end
    end
  end

  # One after the other. Returns for how many of them the thread that had collected them ran them, too.
  def short_jobs(arriving, count)
    done = Queue.new
    Array.new(count) do
      arriving << [-> { done << Thread.current.equal?(@collector) }]
      take(done, 1)[0]
    end.count(true)
  end

  def test_short_jobs_wait_for_no_other_thread
    with_workers(4) do |_, arriving|
      arriving << Array.new(4) { -> { sleep(0.05) } }
      short_jobs(arriving, 200) # threads are woken at once for a while
      assert_operator short_jobs(arriving, 200), :>, 100
    end
  end

  # Where nothing happens no thread wakes up.
  def test_idle_threads_stay_asleep
    with_workers(4) do |workers, arriving|
      done = Queue.new
      arriving << [-> { done << true }]
      take(done, 1)
      sleep(0.1)
      threads = workers.instance_variable_get(:@threads)
      changed = workers.instance_variable_get(:@changed)
      waits = 0
      changed.define_singleton_method(:wait) { |*arguments| (waits += 1) && super(*arguments) }
      sleep(0.1)
      assert_equal 0, waits
      assert_equal ["sleep"], threads.map(&:status).uniq
    end
  end

  def test_threads_that_end_are_replaced
    with_workers(2) do |workers, arriving|
      done = Queue.new
      4.times do
        arriving << [-> { Thread.exit }, -> { done << 1 }, -> { Thread.current.kill }, -> { done << 2 }]
        assert_equal [1, 2], take(done, 2).sort
      end
      # Also one that waits and looks, the one that leads, and all.
      3.times do
        short_jobs(arriving, 150)
        (workers.instance_variable_get(:@deputy) || next).kill.join
        gate = Queue.new
        arriving << [-> { gate.pop }, -> { done << 3 }]
        assert_equal [3], take(done, 1)
        gate << nil
      end
      3.times do
        kill_all(workers.instance_variable_get(:@threads))
        arriving << [-> { done << 3 }]
        assert_equal [3], take(done, 1)
      end
    end
  end

  # When they have begun: one that has not is not replaced.
  def kill_all(threads)
    eventually("three threads") { threads.map(&:status) == ["sleep"] * 3 }
    threads.dup.each(&:kill).each(&:join)
  end

  def test_what_the_leader_raises
    [RuntimeError, NoMemoryError, SystemExit].each do |error|
      workers = Workers.new(1)
      assert_raises(error) do
        within { workers.run { quiet(Thread.current); raise error, "as told" } }
      end
      workers.finish
    end
  end

  # Newer Rubies print what ends a thread.
  def quiet(thread)
    thread.report_on_exception = false if thread.respond_to?(:report_on_exception=)
  end

  # What others raise in a thread that leads meanwhile, or waits.
  def test_exceptions_that_come_late
    with_workers(2) do |workers, arriving|
      done = Queue.new
      6.times do
        arriving << [-> { done << Thread.current }]
        thread = take(done, 1)[0]
        eventually("it waits") { thread.status == "sleep" }
        quiet(thread)
        thread.raise("late")
        eventually("it ends") { !thread.alive? }
      end
      arriving << [-> { done << 1 }]
      assert_equal [1], take(done, 1)
      assert_equal 3, workers.instance_variable_get(:@threads).size
    end
  end

  # The only other thread is kept busy, so nobody else begins them.
  def test_what_waits_can_be_run_by_the_leader
    workers = Workers.new(1)
    order = []
    begun = nil
    gate = Queue.new
    within do
      workers.run do
        unless begun
          begun = Queue.new
          workers.add(&blocked_jobs(1, begun, gate)[0])
          next true
        end
        begun.pop
        3.times { |number| workers.add { order << [number, Thread.current] } }
        workers.run_waiting
        order << Thread.current
        gate << 1
        false
      end
    end
    workers.finish
    leader = order.pop
    assert_equal [[0, leader], [1, leader], [2, leader]], order
  end
end
