# frozen_string_literal: true

require_relative "helper"

# Of a client's threads one reads, for all of them: which one, and what if it leaves.
class RpcClientReadingTest < RpcTest
  # The thread that reads has its answer first, is ended, or times out: another one reads on.
  def test_whoever_reads_may_leave
    with_client do |client|
      first = Thread.new { client.call("sleep", 0.2) }
      sleep(0.05)
      second = Thread.new { client.call("sleep", 0.4) }
      assert_equal [0.2, 0.4], within { [first, second].map(&:value) }

      first = Thread.new { client.call("sleep", 5) }
      sleep(0.05)
      second = Thread.new { client.call("sleep", 0.3) }
      sleep(0.05)
      first.kill
      assert_equal 0.3, within { second.value }

      first = Thread.new { client.call("sleep", 0.8) }
      sleep(0.05)
      began = now
      assert_raises(TimedOut) { client.with(timeout: 0.2).call("sleep", 0.7) }
      assert_operator now - began, :<, 0.6
      assert_equal 0.8, within { first.value }

      first = Thread.new { assert_raises(TimedOut) { client.with(timeout: 0.1).call("sleep", 2) } }
      sleep(0.05)
      second = Thread.new { client.call("sleep", 0.3) }
      within { [first, second].each(&:join) }
    end
  end

  # Exceptions from outside, at any moment, lose no other call.
  def test_threads_that_are_interrupted
    with_client(max_in_progress: 100) do |client|
      calm = Array.new(3) do |one|
        Thread.new { (0...150).all? { |other| client.call("add", one, other) == one + other } }
      end
      150.times do |number|
        thread = Thread.new { client.call("echo", number) }
        thread.report_on_exception = false if thread.respond_to?(:report_on_exception=)
        sleep(rand / 1000)
        number.odd? ? thread.raise(IndexError) : thread.kill
        begin
          within { thread.join }
        rescue IndexError
          nil
        end
      end
      assert within { calm.all?(&:value) }
      assert_equal 3, client.call("add", 1, 2)
    end
  end

  # The exception comes when bytes have been read and nobody has looked at them.
  def test_an_interrupt_between_reading_and_decoding
    interrupt = false
    here, there = UNIXSocket.pair
    here.define_singleton_method(:read_nonblock) do |length, buffer, **options|
      chunk = super(length, buffer, **options)
      Thread.current.raise(IndexError) if interrupt && chunk.is_a?(String)
      chunk
    end
    Client.open(->(_) { here }) do |client|
      reader = Thread.new { assert_raises(IndexError) { client.call("echo", 1) } }
      eventually("it reads") { client.instance_variable_get(:@state).connection && reader.stop? }
      other = Thread.new { client.call("echo", 2) }
      both = 2 * frame([1, "echo", [1]]).bytesize
      eventually("both have been sent") { there.recv(1000, Socket::MSG_PEEK).bytesize == both }
      interrupt = true
      there.write(frame([2, nil, "two"]).byteslice(0, 12))
      within { reader.join }
      interrupt = false
      there.write(frame([2, nil, "two"]).byteslice(12..-1))
      assert_equal "two", within { other.value }
    end
    there.close
  end

  # Who is to read next is ended before it knows: somebody else has to.
  def test_the_next_reader_is_ended
    here, there = UNIXSocket.pair
    Client.open(->(_) { here }) do |client|
      calls = Array.new(3) do |number|
        thread = Thread.new { client.call("echo", number) }
        eventually("it waits") do
          connection = client.instance_variable_get(:@state).connection
          connection && connection.instance_variable_get(:@calls).size == number + 1 && thread.stop?
        end
        thread
      end
      lock = client.instance_variable_get(:@state).connection.instance_variable_get(:@lock)
      lock.lock
      there.write(frame([1, nil, "one"]))
      sleep(0.1) # the first has read it, and wants the lock
      calls[1].kill
      sleep(0.1) # so does the second, to leave
      lock.unlock
      assert_equal "one", within { calls[0].value }
      there.write(frame([3, nil, "three"]))
      assert_equal "three", within(3) { calls[2].value }
    end
    there.close
  end

  # A thread that only looked whether the connection had ended reads for a moment.
  def test_who_reads_before_a_call
    entered = Queue.new
    go_on = Queue.new
    hooked = false
    inside = most = 0
    here, there = UNIXSocket.pair
    here.define_singleton_method(:read_nonblock) do |length, buffer, **options|
      most = [most, inside += 1].max
      begin
        if hooked
          hooked = false
          entered << true
          go_on.pop
        end
        super(length, buffer, **options)
      ensure
        inside -= 1
      end
    end
    Client.open(->(_) { here }) do |client|
      first = Thread.new { client.call("echo", 1) }
      there.readpartial(1000)
      there.write(frame([1, nil, 1]))
      within { first.join }
      hooked = true
      looking = Thread.new { assert_raises(RuntimeError) { client.notify("echo", Time.now) } }
      within { entered.pop }
      waiting = Thread.new { client.call("echo", 2) }
      connection = client.instance_variable_get(:@state).connection
      eventually("the other one waits") { connection.instance_variable_get(:@calls).any? && waiting.stop? }
      there.readpartial(1000)
      go_on << true
      within { looking.join }
      there.write(frame([2, nil, 2]))
      assert_equal 2, within(3) { waiting.value }
      assert_equal 1, most, "threads that read at once"
    end
    there.close
  end

  # The server takes no more before its answers are read, and the client's only thread writes.
  def test_writing_while_answers_wait
    serve("unix:#{@folder}/socket", write_seconds: 10, max_in_progress: 1) do |server|
      Client.open(server.address) do |client|
        40.times do
          begin
            client.with(timeout: 0.002).call("fill", 900_000)
          rescue TimedOut
            nil # as nearly all of them
          end
        end
        assert_equal "y" * 1_000_000, client.call("echo", "y" * 1_000_000)
      end
    end
  end

  # Likewise, when the thread that read for both has left while the other one writes.
  def test_writing_when_the_reader_has_left
    here, there = UNIXSocket.pair
    client = Client.new(->(_) { here }, timeout: 10)
    leaving = Thread.new { assert_raises(TimedOut) { client.with(timeout: 0.3).call("echo", 1) } }
    eventually("it reads") { leaving.stop? }
    long = Thread.new { client.call("echo", "y" * 1_000_000) }
    within { leaving.value }
    there.write(frame([7, nil, "x" * 900_000])) # of a call that has timed out
    id, _, arguments = messages(there, 2).last
    there.write(frame([id, nil, arguments[0].size]))
    assert_equal 1_000_000, within { long.value }
  ensure
    client.close
    there.close
  end

  # The next one to read has not waited yet when the last one looked for it.
  def test_a_call_that_waits_when_the_reader_has_left
    released = Queue.new
    methods = { "echo" => ->(value) { value }, "wait" => -> { released.pop } }
    with_client(methods: methods, workers: 2, max_in_progress: 4) do |client|
      reading = Thread.new { client.call("wait") }
      eventually("it reads") { released.num_waiting == 1 }
      last = Class.new(Hash) do
        define_method(:each) do |&block|
          released << 1
          reading.join
          super(&block)
        end
      end
      assert_equal({ "a" => 1 }, client.call("echo", last["a", 1]))
      assert_equal 1, reading.value
    end
  end

  # The answer has come between the look at it and the lock.
  def test_an_answer_just_before_the_wait
    released = Queue.new
    with_client(methods: { "echo" => ->(value) { value }, "wait" => -> { released.pop } }) do |client|
      reading = Thread.new { client.call("wait") }
      eventually("it reads") { released.num_waiting == 1 }
      client.instance_variable_get(:@state).connection.define_singleton_method(:wait_for_reader) do |call, seconds|
        sleep(0.005) until call.answer
        super(call, seconds)
      end
      assert_equal 1, client.call("echo", 1)
      released << 2
      assert_equal 2, reading.value
    end
  end
end
