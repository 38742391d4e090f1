# frozen_string_literal: true

require "vorn_rpc/rpc"
require_relative "../test_support"
require_relative "hostile_clients"

# Hostile clients may not affect other clients for long. ATTACK multiplies the number of attempts; SERVER is the path of
# a server program to test instead.
class HostileClientsTest < ExampleTest
  SERVERS = ENV.key?("SERVER") ? [ENV["SERVER"]] : %w[rpc/server.rb]
  UNREAD = /the (peer|client) takes nothing/
  TIMES = Integer(ENV.fetch("ATTACK", 1))
  SECONDS_FOR_OTHERS = 5 # generous, for a busy machine

  # All servers at once, because the clients mostly wait.
  def each_server(*arguments, unix: false)
    threads = SERVERS.map do |server|
      address = unix ? "unix:#{@folder}/#{File.basename(server, ".rb")}" : "tcp:127.0.0.1:0"
      program, address = serve(server, address, *arguments)
      thread = Thread.new do
        yield program, address, server
        assert_operator HostileClients.seconds_for_others(address), :<, SECONDS_FOR_OTHERS, server
        refute_match(/terminate|FATAL|Sanitizer/, program.log)
        program.signal("TERM")
        assert_equal 0, program.wait(5), server
      end
      thread.report_on_exception = false if thread.respond_to?(:report_on_exception=)
      thread
    end
    threads.each(&:join)
  end

  # After the block, the server must have no more threads and descriptors than before.
  def leaves_nothing(program, server)
    HostileClients.seconds_for_others(program.output[/^listening on (.+)\n/, 1])
    before = nil
    eventually("#{server} is at rest") do
      last = before
      sleep(0.1)
      (before = HostileClients.holdings(program.pid)) == last
    end
    yield
    eventually("#{server} has no more than #{before} threads and descriptors") do
      HostileClients.holdings(program.pid).zip(before).all? { |now, then_| now <= then_ }
    end
  end

  NO_NUMBERS = [Float::NAN, Float::INFINITY, -Float::INFINITY, -1, -0.5, -1e300, 1e300, "1", nil, true, [1], {}].freeze

  def test_numbers
    each_server do |_, address, server|
      client = VORN::RPC::Client.new(address)
      { "pause" => [10.001, 11], "fill" => [(1 << 21) + 1, 1.5, 1.0] }.each do |method, outside|
        (NO_NUMBERS + outside).each do |number|
          note = "#{server}: #{method} #{number}"
          error = assert_raises(VORN::RPC::RemoteError, note) { client.call(method, number) }
          assert_equal "bad arguments", error.code, note
        end
      end
      (NO_NUMBERS - [-1]).each do |number|
        assert_equal "bad arguments", assert_raises(VORN::RPC::RemoteError) { client.call("add", number, 1) }.code
      end
      [0, 0.0, -0.0, 0.01].each { |seconds| assert_equal seconds, client.call("pause", seconds) }
      assert_equal ["", "x"], [client.call("fill", 0), client.call("fill", 1)]
      # A result that the service can make but not send.
      assert_equal "too large", assert_raises(VORN::RPC::RemoteError) { client.call("fill", 1 << 21) }.code
      client.close
    end
  end

  # Ids have 32 bits, or 64 bytes as Strings. With a longer id, not even an error could be answered.
  def test_ids
    each_server do |program, address, server|
      ["\xBF\xFF\xFF\xFF\x1F", "\xE0\x80\x80\x80\x20", "\x07\x40#{"i" * 64}"].each do |id|
        socket = HostileClients.connect(address)
        socket.write(HostileClients.request_with_id(id.b))
        answer = socket.readpartial(1000)
        assert_includes answer, id.b, server
        socket.close
      end
      ["\xA0\x80\x80\x80\x20", "\xE1\x80\x80\x80\x20", "\x07\x41#{"i" * 65}"].each_with_index do |id, number|
        HostileClients.exchange(address, HostileClients.request_with_id(id.b))
        eventually("#{server} refuses") { program.log.scan(": not a request; closing").size == number + 1 }
      end
      # Requests of the maximum size leave no room for the error text after the id.
      9.times { HostileClients.exchange(address, HostileClients.request("i" * ((1 << 20) - 20), "no")) }
    end
  end

  # A client that requests much and reads nothing uses no more memory than its share, and no time of others. Many such
  # clients in turn leave the garbage collector no more than a few times that.
  def test_flooding_clients
    each_server do |program, address, server|
      leaves_nothing(program, server) do
        clients = 12
        grown = ->(start) { HostileClients.peak_memory(program.pid) - start }
        before = HostileClients.peak_memory(program.pid)
        slowest = [HostileClients.flood(address, clients)]
        first = grown.call(before)
        (TIMES - 1).times { slowest << HostileClients.flood(address, clients) }
        puts format("%s: %d flooding clients take %d MB, %d MB after %d times; others waited %.2f s at most",
                    server, clients, first, grown.call(before), TIMES, slowest.max)
        most = server.end_with?(".rb") ? 20 : 13 # Ruby's garbage collector takes its time
        assert_operator first, :<, most * clients, "MB, #{server}"
        assert_operator grown.call(before), :<, (TIMES > 1 ? 40 : most) * clients, "MB, #{server}"
        assert_operator slowest.max, :<, SECONDS_FOR_OTHERS, server
        eventually("#{server} gives up") { program.log =~ UNREAD }
      end
    end
  end

  # With small answers too, unread answers stop the reading and then end the connection.
  def test_a_flood_of_small_requests
    each_server do |program, address, server|
      leaves_nothing(program, server) do
        socket = HostileClients.connect(address)
        requests = HostileClients.request(1, "echo", "y" * 100) * 1000
        assert_raises(Errno::ECONNRESET, Errno::EPIPE) do
          within(20) { loop { socket.write(requests) } }
        end
        assert_match(UNREAD, program.log)
        assert_equal 1, program.log.scan(UNREAD).size, "lines for one client"
        socket.close
      end
    end
  end

  # Requests of one client use at most half of the workers.
  def test_one_client_does_not_hold_all_workers
    each_server do |_, address, server|
      greedy = HostileClients.connect(address)
      greedy.write(Array.new(16) { |id| HostileClients.request(id, "pause", 1.5) }.join)
      sleep(0.2)
      assert_operator HostileClients.seconds_for_others(address), :<, 1, server
      greedy.close
    end
  end

  # Nor does one client use all the time of a single-threaded server, with requests that are expensive to execute and
  # cheap to answer.
  def test_one_client_does_not_hold_a_thread
    each_server do |_, address, server|
      greedy = HostileClients.connect(address)
      greedy.write(HostileClients.request(1, "fill", 1 << 21) * 4000)
      slowest = Array.new(5) { HostileClients.seconds_for_others(address) }.max
      assert_operator slowest, :<, 2, server
      greedy.close
    end
  end

  def test_silent_clients
    each_server("0.5") do |program, address, server|
      leaves_nothing(program, server) do
        silent = Array.new(20) { HostileClients.connect(address) }
        waiting = HostileClients.connect(address)
        waiting.write(HostileClients.request(1, "pause", 1.5))
        seconds = HostileClients.seconds_until_closed(silent.first, 5)
        assert_includes 0.3..2.5, seconds, server
        silent.drop(1).each { |socket| assert HostileClients.seconds_until_closed(socket, 2), server }
        # Waiting for an answer does not count as silence; afterwards the timeout runs.
        assert IO.select([waiting], nil, nil, 5)
        assert_operator waiting.readpartial(1000).bytesize, :>, 8
        assert HostileClients.seconds_until_closed(waiting, 5), server
        assert_match(/: silent for (0.5 s|500 ms); closing/, program.log)
        [*silent, waiting].each(&:close)
      end
    end
  end

  # A frame that has begun must end in time, whether its bytes stop or trickle in; whole frames may come slowly.
  def test_slow_clients
    each_server("1") do |program, address, server|
      leaves_nothing(program, server) do
        stopped = HostileClients.connect(address)
        stopped.write(HostileClients.half_a_frame)
        trickling = HostileClients.connect(address)
        began = now
        slow = Thread.new do
          [HostileClients.trickle(trickling, HostileClients.request(1, "echo", "x" * 150), 0.1), now - began]
        end
        frame = HostileClients.request(1, "echo", 1)
        # Each frame is slow, and all together exceed the timeout for one.
        patient = HostileClients.connect(address)
        many = frame * (6 / (frame.bytesize * 0.05)).ceil
        slow_frames = Thread.new { HostileClients.trickle(patient, many, 0.05) }
        # No chunk ends at a frame boundary.
        straddling = HostileClients.connect(address)
        straddling.write(frame.byteslice(0, 3))
        7.times do
          sleep(0.9)
          straddling.write(frame.byteslice(3..-1) + frame.byteslice(0, 3))
        end
        answers = 7 * VORN::Stream::Encoder.new.frame([1, nil, 1]).bytesize
        assert_equal answers, within(5) { straddling.read(answers) }.bytesize, server
        assert within(20) { slow_frames.value }, server
        assert HostileClients.seconds_until_closed(stopped, 3), server
        whole, seconds = within(20) { slow.value }
        refute whole, server
        assert_includes 4..9, seconds, server
        assert_equal 2, program.log.scan("the rest of a frame did not come in 5 s; closing").size
        [stopped, trickling, patient, straddling].each(&:close)
      end
    end
  end

  # A client that reads a little now and then is never stalled, and still too slow. UNIX sockets have buffers small
  # enough to test that.
  def test_clients_that_read_slowly
    each_server(unix: true) do |program, address, server|
      leaves_nothing(program, server) do
        socket = HostileClients.connect(address)
        socket.write(HostileClients.request(1, "fill", 1_000_000) * 16)
        limit = now + 8
        until program.log =~ UNREAD
          flunk("#{server} waits for ever") if now > limit
          socket.read_nonblock(10_000, exception: false)
          sleep(0.1)
        end
        socket.close
      end
    end
  end

  def test_resetting_clients
    each_server do |program, address, server|
      leaves_nothing(program, server) { HostileClients.resets(address, 60 * TIMES) }
      assert_operator HostileClients.peak_memory(program.pid), :<, 300, "MB, #{server}"
    end
  end

  # Requests of a client that has disconnected are skipped, where requests are queued.
  def test_requests_of_a_client_that_is_gone
    SERVERS.each do |server|
      program, address = serve(server)
      carried_out = -> { program.log.scan(/^.*fail: as told/).size }
      gone = HostileClients.connect(address)
      gone.write(HostileClients.request(1, "fail"))
      within { gone.readpartial(1000) }
      assert_equal 1, carried_out.call, server
      busy = Array.new(2) { HostileClients.connect(address) }
      busy.each { |socket| socket.write(HostileClients.request(1, "pause", 2) * 4) } # all 8 workers
      sleep(0.3)
      gone.write(HostileClients.request(1, "fail") * 4)
      HostileClients.reset(gone)
      eventually("#{server} notices", 1.5) { program.log =~ /reset by peer/ }
      assert_operator HostileClients.seconds_for_others(address), :<, SECONDS_FOR_OTHERS, server
      sleep(0.2) # a worker may still be executing one
      assert_equal 1, carried_out.call, server
      busy.each(&:close)
    end
  end

  def test_garbage
    random = Random.new(Integer(ENV.fetch("SEED", 1)))
    each_server do |program, address, server|
      leaves_nothing(program, server) { HostileClients.garbage(address, 200 * TIMES, random) }
    end
  end

  # Requests that no worker has begun are dropped.
  def test_the_end_answers_what_was_begun
    SERVERS.each do |server|
      program, address = serve(server)
      sockets = Array.new(5) { HostileClients.connect(address) }
      sockets.each { |socket| socket.write(HostileClients.request(1, "pause", 0.7) * 4) }
      sleep(0.3)
      program.signal("TERM")
      assert_equal 0, program.wait(5), server
      answers = sockets.flat_map { |socket| VORN::Stream::Reader.new(socket).to_a }
      assert_equal 8, answers.count([1, nil, 0.7]), server # there are 8 workers
      sockets.each(&:close)
    end
  end

  # The server ends in time while clients of every kind are connected. Ruby can leave threads behind at exit, C++
  # cannot.
  def test_the_end_does_not_wait_for_clients
    SERVERS.each do |server|
      program, address = serve(server)
      sockets = Array.new(4) { HostileClients.connect(address) }
      sockets[1].write(HostileClients.half_a_frame)
      sockets[2].write(HostileClients.request(1, "fill", 1_000_000) * 64)
      sockets[3].write(HostileClients.request(1, "pause", server.end_with?(".rb") ? 10 : 1.5) * 64)
      sleep(0.3)
      program.signal("TERM")
      assert_equal 0, program.wait(4), server
      sockets.each(&:close)
    end
  end
end
