# frozen_string_literal: true

require_relative "../test_support"
require_relative "fiber_client"
require_relative "thread_client"

# Every server with every client over every kind of socket, and how each side handles a misbehaving peer.
class RpcTest < ExampleTest
  SERVERS = %w[rpc/thread_server.rb rpc/fiber_server.rb].freeze
  CLIENTS = %w[rpc/thread_client.rb rpc/fiber_client.rb].freeze
  TOUR = <<-'LINES'.gsub(/^ +/, "")
    echo: {"a"=>[1, 2.5, nil, true, "text", "\xFF"]}
    add: 42
    three in flight: answered in the order [0.2, 0.4, 0.6]
    three in flight: at once
    time-out: no answer in time (TimedOut)
    after a time-out: "still here"
    late answers dropped: 1
    unknown method: no such method: no method "format_disk" (RemoteError)
    wrong arguments: bad arguments: add takes 2, not 1 (RemoteError)
    result beyond 32 bits: overflow: the sum needs more than 32 bits (RemoteError)
    failure inside the service: failed: the service failed (RemoteError)
    result that has no encoding: failed: the result cannot be sent (RemoteError)
    too large to send: a frame of 1048591 bytes, 1048576 are allowed (VORN::Stream::MessageTooLarge)
    too large to answer: too large: a frame of 1048584 bytes, 1048576 are allowed (RemoteError)
    just fits: 1048476
  LINES

  def addresses
    ["tcp:127.0.0.1:0", "unix:#{@folder}/socket"]
  end

  # One test for each pair of programs and each kind of socket.
  SERVERS.product(CLIENTS, [0, 1]).each do |server, client, kind|
    define_method("test_#{server[/\w+(?=\.)/]}_#{client[/\w+(?=\.)/]}_#{%w[tcp unix][kind]}") do
      within do
        program, address = serve(server, addresses[kind])
        tour = start(client, address)
        assert_equal 0, tour.wait, tour.log
        assert_equal TOUR, tour.output
        # The log has the details that the client does not get.
        assert_match(/fail: as told \(RuntimeError\) at /, program.log)
        assert_match(/serialize_rbobj_to_packetbuf: unsupported rb_type/, program.log)
        program.signal("TERM")
        assert_equal 0, program.wait
      end
    end
  end

  # Yields a client of each kind, in a fiber if it needs one.
  def each_client(address, last_id = 0)
    client = ThreadClient.new(address, last_id)
    begin
      yield client
    ensure
      client.close
    end
    reactor = Reactor.new
    failure = nil
    reactor.spawn do
      begin
        client = FiberClient.new(address, reactor, last_id)
        yield client
      rescue Exception => e # including failed assertions: they must leave the reactor
        failure = e
      ensure
        client.close
      end
    end
    reactor.run
    raise failure if failure
  end

  # A malformed request gets no answer, and ends the connection.
  def sends(address, bytes, half_close: false)
    socket = Sockets.connect(address, 1)
    socket.write(bytes)
    socket.close_write if half_close
    within(5) { socket.read }
  rescue Errno::ECONNRESET # closed before it read all our bytes
    ""
  ensure
    socket.close
  end

  def test_servers_close_on_what_is_not_the_protocol
    {
      "GET / HTTP/1.1\r\n\r\n" => "bytes that belong to no frame (at byte 0 of the stream)",
      "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b =>
        "a frame announces 2147483647 bytes, 1048576 are accepted (at byte 0 of the stream)",
      "\xA5\x00\x00\x00\x00\x00\x00\xDE\xAD\xBE\xEF\x59".b =>
        "a frame header with wrong check bytes (at byte 0 of the stream)",
      "\xA5\x01\x00\x00\x00\x00\x00\x01\x0C".b => "a frame whose payload cannot be read: " \
        "decode_next_packetbuf_rbobj: unrecognized protocol transport type (at byte 0 of the stream)",
      VORN::Stream::Encoder.new.frame([1, "echo"]) => "not a request",
      VORN::Stream::Encoder.new.frame([nil, "echo", []]) => "not a request",
      VORN::Stream::Encoder.new.frame([1.5, "echo", []]) => "not a request"
    }.each do |bytes, reason|
      SERVERS.each do |server|
        program, address = serve(server)
        assert_equal "", sends(address, bytes)
        eventually("#{server} logs #{reason}") { program.log.include?(": #{reason}; closing") }
        each_client(address) { |client| assert_equal 1, client.call("echo", [1]) }
        program.stop
      end
    end
  end

  def test_servers_outlive_clients_that_vanish
    SERVERS.each do |server|
      program, address = serve(server)
      request = VORN::Stream::Encoder.new.frame([1, "pause", [0.2]])
      assert_equal "", sends(address, request.byteslice(0, 11), half_close: true)
      20.times do # disconnects before the answer
        socket = Sockets.connect(address, 1)
        socket.write(request)
        socket.setsockopt(:SOCKET, :LINGER, [1, 0].pack("ii")) # close() sends a reset
        socket.close
      end
      sleep(0.4)
      each_client(address) { |client| assert_equal 1, client.call("echo", [1]) }
      refute_match(/Error \(|terminated with exception/, program.log)
    end
  end

  # Its answers fill the socket, then the server's write timeout ends. Other clients are served meanwhile and
  # afterwards.
  def test_servers_drop_clients_that_read_nothing
    SERVERS.each do |server|
      program, address = serve(server)
      greedy = Sockets.connect(address, 1)
      writer = VORN::Stream::Encoder.new
      20.times { |id| greedy.write(writer.frame([id, "fill", [1_000_000]])) }
      each_client(address) { |client| assert_equal 1, client.call("echo", [1]) }
      eventually("#{server} gives up") { program.log.include?("the peer takes nothing; answer dropped") }
      each_client(address) { |client| assert_equal 1, client.call("echo", [1]) }
      greedy.close
    end
  end

  # One client sends more requests than the server's share and reads late: all are answered.
  def test_servers_hold_back_and_lose_nothing
    SERVERS.each do |server|
      _, address = serve(server)
      socket = Sockets.connect(address, 1)
      writer = VORN::Stream::Encoder.new
      2000.times { |id| socket.write(writer.frame([id, "echo", [id]])) }
      ids = []
      reader = VORN::Stream::Decoder.new
      within do
        until ids.size == 2000
          reader.feed_each(socket.readpartial(65_536)) { |id, error, result| ids << id if error.nil? && result == id }
        end
      end
      assert_equal (0...2000).to_a, ids.sort
      socket.close
    end
  end

  def test_servers_limit_connections
    SERVERS.each do |server|
      program, address = serve(server)
      sockets = Array.new(201) { Sockets.connect(address, 1) }
      eventually("#{server} refuses one") { program.log.include?("too many connections; closing the newest") }
      within(5) { assert_nil sockets.last.read(1) }
      sockets.each(&:close)
      eventually("#{server} takes clients again") do
        begin
          client = ThreadClient.new(address)
          client.call("echo", [1], 1) == 1
        rescue ConnectionLost
          false
        ensure
          client.close
        end
      end
    end
  end

  # A server ends in the middle of a call, and restarts at the same address.
  def test_clients_reconnect
    [0, 1].each do |kind|
      program, address = serve(SERVERS[kind], addresses[kind])
      each_client(address) do |client|
        assert_equal 1, client.call("echo", [1])
        pid = program.pid
        killer = Thread.new { sleep(0.3); Process.kill("KILL", pid) }
        error = assert_raises(ConnectionLost) { client.call("pause", [5]) }
        assert_match(/closed the connection|reset/, error.message)
        killer.join
        program.wait

        # No server: the call retries until its timeout.
        began = Sockets.now
        error = assert_raises(ConnectionLost) { client.call("echo", [1], 0.5) }
        assert_match(/\Acannot connect: /, error.message)
        assert_operator Sockets.now - began, :<, 1

        # A call that begins before the server has restarted succeeds.
        program = start(SERVERS[kind], address)
        assert_equal 2, client.call("echo", [2])
      end
    end
  end

  # A signal ends the threaded server only after it has answered the requests in progress.
  def test_ending_between_request_and_answer
    program, address = serve("rpc/thread_server.rb")
    client = ThreadClient.new(address)
    pid = program.pid
    ender = Thread.new { sleep(0.2); Process.kill("TERM", pid) }
    assert_equal 0.5, client.call("pause", [0.5])
    ender.join
    assert_equal 0, program.wait
    assert_raises(ConnectionLost) { client.call("echo", [1], 0.2) }
    client.close
  end

  # Accepts connections and sends the given answers.
  def fake_server(answer)
    listener = Sockets.listen("tcp:127.0.0.1:0")
    thread = Thread.new do
      loop do
        socket, = listener.accept
        Thread.new do
          begin
            socket.readpartial(100)
            socket.write(answer)
            socket.read
          rescue SystemCallError, EOFError
            nil
          ensure
            socket.close
          end
        end
      end
    end
    yield Sockets.address_of(listener)
  ensure
    thread.kill
    listener.close
  end

  def test_clients_give_up_on_a_silent_server
    fake_server("") do |address|
      each_client(address) do |client|
        began = Sockets.now
        assert_raises(TimedOut) { client.call("echo", [1], 0.2) }
        assert_operator Sockets.now - began, :<, 1
      end
    end
  end

  def test_clients_refuse_what_is_no_answer
    {
      "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b =>
        "a frame announces 2147483647 bytes, 1048576 are accepted (at byte 0 of the stream)",
      "HTTP/1.1 400\r\n" => "bytes that belong to no frame (at byte 0 of the stream)",
      VORN::Stream::Encoder.new.frame("hello") => "not an answer",
      VORN::Stream::Encoder.new.frame([1, "error", nil]) => "not an answer"
    }.each do |answer, reason|
      fake_server(answer) do |address|
        each_client(address) do |client|
          assert_equal reason, assert_raises(ConnectionLost) { client.call("echo", [1]) }.message
        end
      end
    end
  end

  # After the largest id comes 1: an id beyond 32 bits would come back as another.
  def test_ids_wrap_around
    _, address = serve(SERVERS[0])
    each_client(address, ThreadClient::MAX_ID - 2) do |client|
      assert_equal [0, 1, 2, 3], Array.new(4) { |number| client.call("echo", [number]) }
      assert_equal 2, client.instance_variable_get(:@last_id)
    end
  end

  # After wrapping around, a pending call may still have the next id.
  def test_no_two_calls_that_wait_have_one_id
    _, address = serve(SERVERS[0])
    each_client(address) do |client|
      results = []
      long_call = -> { results << client.call("pause", [0.5]) }
      reactor = client.instance_variable_get(:@reactor)
      thread = reactor ? nil : Thread.new(&long_call)
      reactor.start(&long_call) if reactor
      eventually("the call is under way") do
        connection = client.instance_variable_get(:@connection)
        connection && connection.calls.keys == [1]
      end
      client.instance_variable_set(:@last_id, 0)
      assert_equal 1, client.call("echo", [1])
      assert_equal 2, client.instance_variable_get(:@last_id)
      assert_equal 0.6, client.call("pause", [0.6]) # the other call is answered meanwhile
      thread.join if thread
      assert_equal [0.5], results
    end
  end

  def test_many_threads_share_a_client
    _, address = serve(SERVERS[0])
    client = ThreadClient.new(address)
    threads = Array.new(20) do |one|
      Thread.new { (0...50).all? { |other| client.call("add", [one, other]) == one + other } }
    end
    within { assert threads.all?(&:value) }
    client.close
  end

  def test_many_fibers_share_a_client
    _, address = serve(SERVERS[1])
    reactor = Reactor.new
    client = FiberClient.new(address, reactor)
    results = []
    20.times do |one|
      reactor.spawn do
        results << (0...50).all? { |other| client.call("add", [one, other]) == one + other }
        client.close if results.size == 20
      end
    end
    within { reactor.run }
    assert_equal [true] * 20, results
  end

  # A stale socket file is replaced; one in use is not.
  def test_socket_files
    address = "unix:#{@folder}/socket"
    program, = serve(SERVERS[0], address)
    second = start(SERVERS[1], address)
    refute_equal 0, second.wait
    assert_match(/Address already in use/, second.log)
    program.stop("KILL")
    _, again = serve(SERVERS[1], address)
    assert_equal address, again
  end
end
