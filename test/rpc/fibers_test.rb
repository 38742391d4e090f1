# frozen_string_literal: true

require_relative "helper"

# Calls on one thread whose fibers have a scheduler.
class RpcFibersTest < RpcTest
  def setup
    super
    skip("Ruby #{RUBY_VERSION} has no Fiber schedulers") unless Fiber.respond_to?(:current_scheduler)
    require_relative "scheduler"
  end

  # Runs the block in a fiber of a thread of its own.
  def with_scheduler
    result = nil
    thread = Thread.new do
      Fiber.set_scheduler(Scheduler.new)
      Fiber.schedule { result = yield }
    end
    within { thread.join }
    result
  end

  # Each waits for its answer while the others run.
  def test_a_client_of_many_fibers
    serve do |server|
      finished = []
      with_scheduler do
        client = Client.new(server.address)
        client.call("echo", 1)
        calls = [0.6, 0.4, 0.2].map do |seconds|
          Fiber.schedule { finished << client.call("sleep", seconds) }
        end
        sleep(0.05) while calls.any?(&:alive?)
        assert_raises(TimedOut) { client.with(timeout: 0.1).call("sleep", 0.3) }
        assert_equal 3, client.call("add", 1, 2)
        client.close
      end
      assert_equal [0.2, 0.4, 0.6], finished
    end
  end

  # Methods that wait let others run, beyond the number of any workers.
  def test_a_server_of_fibers
    skip("IO.select blocks all fibers of Ruby #{RUBY_VERSION}") if RUBY_VERSION.start_with?("3.1")
    log = StringIO.new
    server = Server.new("tcp:127.0.0.1:0", METHODS, logger: Logger.new(log), max_in_progress: 50)
    thread = Thread.new { with_scheduler { server.run } }
    connect(server) do |socket|
      began = now
      30.times { |id| socket.write(frame([id, "sleep", [0.3]])) }
      assert_equal 30, messages(socket, 30).size
      assert_operator now - began, :<, 3
    end
    Client.open(server.address) do |client|
      assert_equal 3, client.call("add", 1, 2)
      assert_equal "failed", assert_raises(RemoteError) { client.call("fail") }.code
    end
    server.stop
    assert thread.join(10)
    assert_match(/fail: as told/, log.string)
  end
end
