# frozen_string_literal: true

require_relative "helper"

# What one client can take from a server and from the others: its share, its time, its place.
class RpcLimitsTest < RpcTest
  # More requests at once than a client's share, from a client that reads late: all are answered.
  def test_requests_that_are_held_back
    WORKERS.each do |workers|
      serve(workers: workers) do |server|
        connect(server) do |socket|
          2000.times { |id| socket.write(frame([id, "echo", [id]])) }
          answers = messages(socket, 2000)
          assert_equal Array.new(2000) { |id| [id, nil, id] }, answers.sort_by(&:first)
        end
      end
    end
  end

  # And if several are in one frame.
  def test_frames_of_several_requests
    serve do |server|
      connect(server) do |socket|
        socket.write(frame(*Array.new(50) { |id| [id, "echo", [id]] }) + frame)
        assert_equal (0...50).to_a, messages(socket, 50).map(&:first).sort
      end
    end
  end

  def test_the_share_of_a_client
    running = 0
    most = 0
    lock = Mutex.new
    count = lambda do
      lock.synchronize { most = [most, running += 1].max }
      sleep(0.02)
      lock.synchronize { running -= 1 }
    end
    serve(methods: { "count" => count }, max_in_progress: 3) do |server|
      connect(server) do |socket|
        socket.write(frame([1, "count", []]) * 12)
        messages(socket, 12)
      end
    end
    assert_equal 3, most
  end

  # A client that reads no answers has no more requests begun, however small its share of them is.
  def test_answers_that_are_not_read
    begun = 0
    fill = lambda do
      begun += 1
      "x" * 50_000
    end
    serve("unix:#{@folder}/socket", methods: { "fill" => fill }, max_in_progress: 8, write_seconds: 20) do |server|
      connect(server) do |socket|
        socket.write(frame([1, "fill", []]) * 100)
        sleep(0.5)
        assert_operator begun, :<, 30
        assert_equal 100, messages(socket, 100).size
      end
    end
  end

  # While a request is held back, the loop waits.
  def test_a_client_that_is_held_back_costs_nothing
    serve(workers: 1, max_in_progress: 1) do |server|
      connect(server) do |socket|
        socket.write(frame([1, "sleep", [0.4]]) + frame([2, "echo", [0]]))
        sleep(0.1)
        before = Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
        sleep(0.2)
        assert_operator Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID) - before, :<, 0.1
        assert_equal [[1, nil, 0.4], [2, nil, 0]], messages(socket, 2)
      end
    end
  end

  # Without workers, one client's requests may not all come before those of others.
  def test_clients_take_turns
    serve(methods: METHODS.merge("work" => -> { sleep(0.002) }), workers: 0) do |server|
      connect(server) do |greedy|
        greedy.write(frame([1, "work", []]) * 2000)
        sleep(0.05)
        Client.open(server.address, timeout: 2) { |client| assert_equal 3, client.call("add", 1, 2) }
      end
    end
  end

  # Other clients are served while the answers of one fill its socket, and afterwards.
  def test_clients_that_read_nothing
    WORKERS.each do |workers|
      serve("unix:#{@folder}/socket", workers: workers, write_seconds: 0.5) do |server, log|
        connect(server) do |greedy|
          greedy.write(frame([1, "fill", [1_000_000]]) * 20)
          Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
          eventually("the server gives up") { log.string.include?("the client takes nothing") }
          Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
        end
      end
    end
  end

  # A client that reads a little now and then is never stalled, and still too slow.
  def test_clients_that_read_slowly
    serve("unix:#{@folder}/socket", write_seconds: 0.5) do |server, log|
      connect(server) do |socket|
        socket.write(frame([1, "fill", [1_000_000]]) * 16)
        eventually("the server gives up") do
          socket.read_nonblock(10_000, exception: false)
          sleep(0.01)
          log.string.include?("the client takes nothing")
        end
      end
    end
  end

  def test_silent_clients
    serve(idle_seconds: 0.4, frame_seconds: 0.4) do |server, log|
      silent = connect(server)
      waiting = connect(server)
      waiting.write(frame([1, "sleep", [1]]))
      began = now
      assert closed?(silent)
      assert_includes 0.3..3, now - began
      # Waiting for an answer does not count as silence; afterwards the timeout runs.
      assert_equal [[1, nil, 1]], messages(waiting, 1)
      assert closed?(waiting)
      assert_equal 2, log.string.scan("silent for 0.4 s; closing").size
      [silent, waiting].each(&:close)
    end
  end

  # A frame that has begun must end in time, whether its bytes stop or trickle in; whole frames may come slowly.
  def test_slow_clients
    request = frame([1, "echo", ["x" * 100]])
    serve(frame_seconds: 1) do |server, log|
      stopped = connect(server)
      stopped.write(request.byteslice(0, 9))
      trickling = connect(server)
      trickle = Thread.new do
        begin
          request.each_char { |byte| trickling.write(byte); sleep(0.03) }
          :whole
        rescue SystemCallError
          :closed
        end
      end
      # No chunk ends at a frame's end, and all together take longer than one frame may.
      straddling = connect(server)
      straddling.write(request.byteslice(0, 3))
      4.times { sleep(0.4); straddling.write(request.byteslice(3..-1) + request.byteslice(0, 3)) }
      assert_equal 4, messages(straddling, 4).size
      assert closed?(stopped)
      assert_equal :closed, within { trickle.value }
      eventually("the log says it") { log.string.scan("the rest of a frame did not come in 1 s; closing").size >= 2 }
      [stopped, trickling, straddling].each(&:close)
    end
  end

  # Frames that are held back are the server's doing.
  def test_held_back_is_not_slow
    serve(workers: 1, frame_seconds: 0.3, idle_seconds: 0.3) do |server|
      connect(server) do |socket|
        socket.write(frame([1, "sleep", [0.4]]) * 5)
        assert_equal 5, messages(socket, 5).size
      end
    end
  end

  def test_too_many_connections
    serve(max_connections: 2) do |server, log|
      sockets = Array.new(3) { connect(server) }
      assert closed?(sockets.last)
      assert_match(/too many connections; closing the newest/, log.string)
      sockets.each(&:close)
      eventually("the server takes clients again") do
        begin
          Client.open(server.address) { |client| client.call("add", 1, 2) }
        rescue ConnectionLost
          false
        end
      end
    end
  end

  # The requests of a client that has gone are not begun.
  def test_clients_that_take_back_their_calls
    begun = Queue.new
    methods = METHODS.merge("begin" => ->(number) { begun << number; sleep(0.3) })
    serve(methods: methods, workers: 1, max_in_progress: 3) do |server|
      connect(server) do |socket|
        3.times { |number| socket.write(frame([number, "begin", [number]])) }
        assert_equal 0, within { begun.pop }
      end
      Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
      assert begun.empty?
    end
  end

  def test_clients_that_vanish
    WORKERS.each do |workers|
      serve(workers: workers) do |server, log|
        20.times do
          socket = connect(server)
          socket.write(frame([1, "sleep", [0.02]]) * 3)
          socket.setsockopt(:SOCKET, :LINGER, [1, 0].pack("ii")) # close() sends a reset
          socket.close
        end
        Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
        refute_match(/ERROR|FATAL/, log.string)
      end
    end
  end
end
