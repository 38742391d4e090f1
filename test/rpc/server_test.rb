# frozen_string_literal: true

require_relative "../support/certificate"
require_relative "helper"

class RpcServerTest < RpcTest
  Refused = VORN::RPC::Refused

  def test_a_call
    WORKERS.each do |workers|
      with_client(workers: workers) do |client|
        assert_equal 42, client.call("add", 20, 22)
        value = [{ "a" => [1, 2.5, nil, true, "text", "\xFF".b] }]
        assert_equal value, client.call("echo", value)
        assert_nil client.call("echo", nil)
        assert_equal false, client.call("echo", false)
      end
    end
  end

  def test_addresses
    ["tcp:127.0.0.1:0", "unix:#{@folder}/socket"].each do |address|
      serve(address) { |server| Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) } }
    end
    ["", "tcp:127.0.0.1", "tcp::1", "udp:127.0.0.1:1", "unix:", "tcp:a:b"].each do |address|
      assert_raises(ArgumentError, address) { Server.new(address, {}) }
      assert_raises(ArgumentError, address) { Client.new(address) }
    end
  end

  def test_listening_sockets
    [TCPServer.new("127.0.0.1", 0), Addrinfo.tcp("127.0.0.1", 0).listen].each do |listener|
      serve(listener) { |server| Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) } }
      assert listener.closed?
    end
  end

  # A stale socket file is replaced; one in use is not.
  def test_socket_files
    address = "unix:#{@folder}/socket"
    serve(address) { assert_raises(Errno::EADDRINUSE) { Server.new(address, {}) } }
    assert File.socket?("#{@folder}/socket")
    serve(address) { Client.open(address) { |client| assert_equal 3, client.call("add", 1, 2) } }
  end

  def test_a_connection_that_exists
    serve(nil) do |server|
      assert_nil server.address
      here, there = UNIXSocket.pair
      server.serve(there)
      Client.open(->(_) { here }) { |client| assert_equal 3, client.call("add", 1, 2) }
      eventually("the server closes it") { there.closed? }
    end
  end

  def test_a_connection_that_somebody_else_closes
    serve(nil) do |server|
      2.times do
        here, there = UNIXSocket.pair
        server.serve(there)
        Client.open(->(_) { here }) { |client| client.call("echo", 1); there.close }
      end
      here, there = UNIXSocket.pair
      server.serve(there)
      Client.open(->(_) { here }) { |client| assert_equal 3, client.call("add", 1, 2) }
    end
  end

  def test_tls
    skip("this Ruby has no openssl") unless Certificate.available?
    key, certificate = Certificate.make
    server_context = Certificate.server_context(key, certificate)
    client_context = Certificate.client_context(certificate)
    serve(tls: server_context) do |server, log|
      port = Integer(server.address[/\d+\z/])
      secure = lambda do |_|
        OpenSSL::SSL::SSLSocket.new(TCPSocket.new("127.0.0.1", port), client_context).tap do |ssl|
          ssl.sync_close = true
          ssl.connect
        end
      end
      # Silent in the middle of the handshake: it keeps nobody waiting.
      silent = TCPSocket.new("127.0.0.1", port)
      Client.open(secure) do |client|
        assert_equal 42, client.call("add", 20, 22)
        threads = Array.new(4) { |size| Thread.new { client.call("fill", 250_000 * size).bytesize } }
        assert_equal [0, 250_000, 500_000, 750_000], within { threads.map(&:value) }
        assert_equal "y" * 1_000_000, client.call("echo", "y" * 1_000_000)
      end
      silent.write("GET / HTTP/1.1\r\n\r\n")
      assert closed?(silent)
      silent.close
      eventually("the log says it") { log.string =~ /SSLError/ }
    end
  end

  def test_errors
    methods = METHODS.merge(
      "refuse" => -> { raise Refused.new("overdrawn", "7 is too much") }, "now" => -> { Time.now },
      "large" => -> { UNSENDABLE }, "long" => -> { raise Refused.new("code", "x" * (1 << 20)) },
      "missing" => -> { raise NotImplementedError }, "stack" => -> { raise SystemStackError },
      "throw" => -> { throw :nothing }, "symbol" => -> { raise Refused.new(:code, "text") }
    )
    WORKERS.each do |workers|
      with_client(methods: methods, workers: workers) do |client, log|
        {
          ["nothing"] => ["no such method", "no method \"nothing\""],
          ["n\n" * 50] => ["no such method", "no method #{("n\n" * 20).inspect}"],
          ["add", 1] => ["bad arguments", "add takes 2, not 1"],
          ["refuse"] => ["overdrawn", "7 is too much"],
          ["symbol"] => %w[code text],
          ["fail"] => ["failed", "the service failed"],
          ["missing"] => ["failed", "the service failed"],
          ["stack"] => ["failed", "the service failed"],
          ["throw"] => ["failed", "the service failed"],
          ["now"] => ["failed", "the result cannot be sent"],
          ["long"] => ["too large", "a frame of 1048592 bytes, 1048576 are allowed"],
          ["large"] => ["failed", "the result cannot be sent"],
          ["fill", 1 << 20] => ["too large", "a frame of 1048584 bytes, 1048576 are allowed"]
        }.each do |call, (code, text)|
          error = assert_raises(RemoteError, call.inspect) { client.call(*call) }
          assert_equal [code, text, "#{code}: #{text}"], [error.code, error.text, error.message], call.inspect
        end
        assert_equal 3, client.call("add", 1, 2)
        # The log has the details that the client does not get.
        assert_match(/fail: as told \(RuntimeError\) at .*helper.rb:/, log.string)
        assert_match(/the result cannot be sent: serialize_rbobj_to_packetbuf: unsupported rb_type/, log.string)
      end
    end
  end

  # A client's bytes begin no line of their own in the log.
  def test_the_log
    methods = { "parse" => ->(text) { Float(text) } }
    with_client(methods: methods, workers: 1) do |client, log|
      text = "1\nE, forged\e[2J\xFF"
      assert_equal "failed", assert_raises(RemoteError) { client.call("parse", text) }.code
      client.notify("x\ny\xFF")
      assert_raises(RemoteError) { client.call("parse") }
      assert_equal 2, log.string.lines.size, log.string
      refute_match(/\e/, log.string)
      assert_match(/ERROR -- : parse: .*forged/, log.string)
    end
  end

  def test_how_many_arguments
    methods = {
      "none" => -> { 0 }, "optional" => ->(_a, _b = 2) { 1 }, "rest" => ->(_a, *rest) { rest.size },
      "proc" => proc { |a, b| [a, b] }, "method" => [3, 4].method(:push), :symbol => ->(a) { a }
    }
    with_client(methods: methods) do |client|
      assert_equal [0, 1, 1, 2], [client.call("none"), client.call("optional", 1), client.call("optional", 1, 2),
                                  client.call("rest", 1, 2, 3)]
      assert_equal [[nil, nil], [1, 2]], [client.call("proc"), client.call("proc", 1, 2)]
      assert_equal [3, 4, 5], client.call("method", 5)
      # A Hash is an argument like others, whatever its keys.
      assert_equal({}, client.call("symbol", {}))
      assert_equal({ "a" => 1 }, client.call("symbol", { a: 1 }))
      {
        ["none", 1] => "none takes 0, not 1", ["optional"] => "optional takes 1 to 2, not 0",
        ["rest"] => "rest takes 1 or more, not 0", ["proc", 1, 2, 3] => "proc takes 0 to 2, not 3"
      }.each do |call, text|
        assert_equal text, assert_raises(RemoteError) { client.call(*call) }.text
      end
    end
    { { "no" => 1 } => "no body of a method: no",
      { "keyword" => ->(a:) { a } } => "a method of a server takes no keywords: keyword" }.each do |wrong, text|
      assert_equal text, assert_raises(ArgumentError) { Server.new(nil, wrong) }.message
    end
  end

  # With one worker, so that the calls are made in their order.
  def test_notifications
    heard = []
    methods = { "hear" => ->(value) { heard << value }, "fail" => -> { raise "as told" }, "last" => -> { heard } }
    WORKERS.map { |workers| [workers, 1].min }.each do |workers|
      heard.clear
      with_client(methods: methods, workers: workers) do |client, log|
        assert_nil client.notify("hear", 1)
        assert_nil client.notify("fail")
        assert_nil client.notify("nothing")
        client.notify("hear", 2)
        assert_equal [1, 2], client.call("last")
        assert_match(/fail: as told/, log.string)
        assert_match(/nothing: no method "nothing"/, log.string)
      end
    end
  end

  def test_a_hook_around_each_call
    calls = []
    around = lambda do |name, arguments, &run|
      raise Refused.new("forbidden", "not this one") if name == "fail"
      calls << [name, arguments, run.call]
      calls.last[2]
    end
    with_client(around: around) do |client|
      assert_equal 3, client.call("add", 1, 2)
      assert_equal "forbidden", assert_raises(RemoteError) { client.call("fail") }.code
      assert_raises(RemoteError) { client.call("nothing") }
    end
    assert_equal [["add", [1, 2], 3]], calls
  end

  # A method that ends its thread, by any means, ends neither the worker nor the call without an answer.
  def test_methods_that_end_their_thread
    methods = { "exit" => -> { Thread.exit }, "kill" => -> { Thread.current.kill }, "add" => METHODS["add"] }
    with_client(methods: methods, workers: 1) do |client|
      %w[exit kill].each do |name|
        assert_equal "failed", assert_raises(RemoteError) { client.call(name) }.code
        assert_equal 3, client.call("add", 1, 2)
      end
    end
  end

  NO_REQUESTS = {
    "GET / HTTP/1.1\r\n\r\n" => "bytes that belong to no frame (at byte 0 of the stream)",
    "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b =>
      "a frame announces 2147483647 bytes, 1048576 are accepted (at byte 0 of the stream)",
    "\xA5\x00\x00\x00\x00\x00\x00\xDE\xAD\xBE\xEF\x59".b =>
      "a frame header with wrong check bytes (at byte 0 of the stream)",
    "\xA5\x01\x00\x00\x00\x00\x00\x01\x0C".b => "a frame whose payload cannot be read: " \
      "decode_next_packetbuf_rbobj: unrecognized protocol transport type (at byte 0 of the stream)"
  }.merge([
    nil, [], [1, "echo"], [1, "echo", [], nil], [1.5, "echo", []], [true, "echo", []], [[1], "echo", []],
    [1, nil, []], [1, 2, []], [1, "echo", nil], [1, "echo", {}], ["i" * 65, "echo", []], { "id" => 1 }
  ].map { |message| [VORN::Stream::Encoder.new.frame(message), "not a request"] }.to_h).freeze

  # They get no answer, and end the connection. Requests before them are answered or not.
  def test_what_is_no_request
    WORKERS.each do |workers|
      serve(workers: workers) do |server, log|
        NO_REQUESTS.each do |bytes, reason|
          log.truncate(log.rewind)
          connect(server) do |socket|
            socket.write(bytes)
            assert_equal "", within { socket.read }, reason
          end
          eventually("the log says: #{reason}") { log.string.include?(": #{reason}; closing") }
        end
        Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
      end
    end
  end

  # 32 bits, or 64 bytes as Strings.
  def test_ids
    serve do |server, log|
      connect(server) do |socket|
        ids = [0, -2**31, 2**31 - 1, "", "i" * 64]
        ids.each { |id| socket.write(frame([id, "echo", [id]])) }
        assert_equal ids.map(&:to_s).sort, messages(socket, ids.size).map { |id, _, _| id.to_s }.sort
      end
      # Beyond 32 bits, as another program might write them.
      ["\xA0\x80\x80\x80\x20", "\xE1\x80\x80\x80\x20"].each do |id|
        payload = "\x0A".b + id.b + "\x07\x04echo\x0A\x81\x0B\x0B".b
        connect(server) do |socket|
          socket.write([0xA5, 1, 0, payload.bytesize].pack("CCnN") + payload)
          assert_equal "", within { socket.read }
        end
      end
      eventually("the log says it") { log.string.scan("not a request; closing").size == 2 }
    end
  end

  # Ids are a connection's own: the same ones are in progress for three clients at once.
  def test_each_client_is_answered_on_its_own_connection
    methods, waiting, gate = waiting_methods
    serve(methods: methods, workers: 12, max_in_progress: 4) do |server|
      sockets = Array.new(3) { connect(server) }
      4.times { |id| sockets.each_with_index { |socket, client| socket.write(frame([id, "wait", [[client, id]]])) } }
      eventually("all are in progress") { waiting.size == 12 }
      12.times { gate << nil }
      sockets.each_with_index do |socket, client|
        assert_equal Array.new(4) { |id| [id, nil, [client, id]] }, messages(socket, 4).sort_by(&:first)
        socket.close
      end
    end
  end

  # However the bytes arrive.
  def test_every_cut_of_a_conversation
    request = frame([1, "echo", ["text"]])
    answer = frame([1, nil, "text"])
    serve do |server|
      (1...request.bytesize).each do |cut|
        connect(server) do |socket|
          socket.write(request.byteslice(0, cut))
          sleep(0.001)
          socket.write(request.byteslice(cut..-1))
          assert_equal answer, within { socket.readpartial(1000) }
        end
        connect(server) { |socket| socket.write(request.byteslice(0, cut)) }
      end
      Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
    end
  end

  # METHODS and "wait", the calls of it that have begun, and what lets one of them end.
  def waiting_methods
    waiting = Queue.new
    gate = Queue.new
    [METHODS.merge("wait" => ->(value) { waiting << value; gate.pop; value }), waiting, gate]
  end

  def refuses?(server)
    connect(server) { false }
  rescue Errno::ECONNREFUSED
    true
  end

  # What has begun is answered, what has not is refused, and nothing is accepted any more.
  def test_stopping
    methods, waiting, gate = waiting_methods
    serve(methods: methods, workers: 2, max_in_progress: 4) do |server|
      connect(server) do |socket|
        socket.write(Array.new(4) { |id| frame([id, "wait", [id]]) }.join)
        eventually("both workers are busy") { waiting.size == 2 }
        server.stop
        reader = VORN::Stream::Reader.new(socket)
        refused = within { reader.first(2) }
        assert_equal [[2, "stopping"], [3, "stopping"]], refused.map { |id, error, _| [id, error[0]] }.sort
        2.times { gate << nil }
        assert_equal [[0, nil, 0], [1, nil, 1]], within { reader.to_a }.sort
        assert closed?(socket)
        assert refuses?(server)
      end
    end
  end

  # A client may have sent more than it may have in progress: what has been read of that is refused too.
  def test_stopping_with_requests_that_are_held_back
    methods, waiting, gate = waiting_methods
    WORKERS.each do |workers|
      waiting.clear
      serve(methods: methods, workers: workers, max_in_progress: 1) do |server|
        connect(server) do |socket|
          socket.write(Array.new(20) { |id| frame([id, id.zero? ? "wait" : "echo", [id]]) }.join)
          eventually("the first has begun") { waiting.size == 1 }
          server.stop
          eventually("it accepts no connection") { refuses?(server) } unless workers.zero?
          gate << nil
          answers = messages(socket, 20).sort_by(&:first)
          assert_equal (0..19).to_a, answers.map(&:first)
          assert_equal [0, nil, 0], answers.first
          # Without workers the next one begins before the loop looks round.
          refused = answers.drop(workers.zero? ? 2 : 1)
          assert_equal ["stopping"], refused.map { |_, error, _| error && error[0] }.uniq
          assert closed?(socket)
        end
      end
    end
  end

  # Nobody waits for the answer to a notification: the log has each that was read and is not executed, whether it waits
  # for a worker or is held back, and however long what has begun takes.
  def test_stopping_drops_no_notification_silently
    executed = Queue.new
    methods, waiting, gate = waiting_methods
    methods["note"] = ->(number) { executed << number }
    [[1, 3], [1, 1], [0, 3]].each do |workers, share|
      [executed, waiting].each(&:clear)
      serve(methods: methods, workers: workers, max_in_progress: share, stop_seconds: 0.3) do |server, log|
        connect(server) do |socket|
          notes = Array.new(10) { |number| frame([nil, "note", [number]]) }
          socket.write(frame([1, "wait", [nil]]) + notes.join)
          eventually("the first has begun") { waiting.size == 1 }
          server.stop
          gate << nil if workers.zero?
          assert closed?(socket)
          # Without workers some begin before the loop looks round.
          wanted = workers.zero? ? 2..10 : 10..10
          dropped = -> { log.string.scan("note: dropped, the server is stopping").size }
          eventually("the log has them") { wanted.cover?(dropped.call) }
          assert_equal 10, executed.size + dropped.call
        end
      end
    end
  end

  # What waits for a worker is refused at once: its caller has time left to make the call elsewhere.
  def test_stopping_refuses_before_workers_are_free
    serve(workers: 1, max_in_progress: 2) do |server|
      connect(server) do |socket|
        socket.write(Array.new(4) { |id| frame([id, "sleep", [id.zero? ? 1 : 0]]) }.join)
        sleep(0.2)
        server.stop
        began = now
        assert_equal [1, 2, 3], messages(socket, 3).map(&:first).sort
        assert_operator now - began, :<, 0.6
      end
    end
  end

  # It is answered while all workers are busy, for as long as they are.
  def test_inline_methods
    threads = Queue.new
    methods = METHODS.merge("ping" => -> { threads << Thread.current; "pong" }, :tick => -> { "tock" })
    around = ->(name, _arguments, &run) { name == "refused" ? raise(Refused.new("mine", "text")) : run.call }
    options = { methods: methods.merge("refused" => -> {}), inline: ["ping", "refused", :tick], around: around }
    serve(workers: 2, **options) do |server|
      connect(server) do |busy|
        busy.write(frame([1, "sleep", [1]]))
        connect(server) do |also_busy|
          also_busy.write(frame([1, "sleep", [1]]))
          sleep(0.2)
          Client.open(server.address) do |client|
            began = now
            assert_equal "pong", client.call("ping")
            assert_equal "tock", client.call("tick")
            assert_equal "mine", assert_raises(RemoteError) { client.call("refused") }.code
            assert_operator now - began, :<, 0.5
            assert_equal 3, client.call("add", 1, 2)
            assert_operator now - began, :>, 0.5
          end
        end
      end
    end
    assert_equal 1, threads.size
    with_client(workers: 0, **options) { |client| assert_equal "pong", client.call("ping") }
    error = assert_raises(ArgumentError) { Server.new(nil, METHODS, inline: %w[echo pong]) }
    assert_equal "no method to run inline: pong", error.message
  end

  # What does not end in time is ended, and clients do not delay the end.
  def test_stopping_takes_no_longer_than_it_may
    ended = Queue.new
    stubborn = -> { begin sleep(60) ensure ended << true end }
    serve(methods: METHODS.merge("stubborn" => stubborn), stop_seconds: 0.3) do |server|
      sockets = Array.new(4) { connect(server) }
      sockets[1].write(frame([1, "stubborn", []]))
      sockets[2].write(frame([1, "fill", [1_000_000]]) * 16)
      sockets[3].write(frame([1, "echo", [1]]).byteslice(0, 5))
      sleep(0.2)
      began = now
      server.stop
      sockets.each { |socket| assert closed?(socket) }
      assert_operator now - began, :<, 3
      assert within { ended.pop }
      sockets.each(&:close)
    end
  end

  def test_stopping_before_running
    server = Server.new("tcp:127.0.0.1:0", {})
    here, there = UNIXSocket.pair
    server.stop
    server.serve(there)
    within(5) { server.run }
    assert there.closed?
    here.close
    server.stop # once more does nothing
  end

  # What a failure ends: one connection at most.
  def test_failures_of_an_io
    serve do |server, log|
      pipes = []
      errors = [IOError, Errno::EIO, NotImplementedError, NoMemoryError, SystemStackError, ArgumentError]
      errors.each do |error|
        reader, writer = IO.pipe
        writer << "x"
        reader.define_singleton_method(:read_nonblock) { |*| raise error, "out of order" }
        server.serve(reader)
        pipes << writer
      end
      eventually("all are closed") { log.string.scan("out of order").size == errors.size }
      pipes.each(&:close)
      Client.open(server.address) { |client| assert_equal 3, client.call("add", 1, 2) }
    end
  end

  def test_options
    [-1, 511, 2**31, "1"].each { |length| assert_raises(ArgumentError) { Server.new(nil, {}, max_length: length) } }
    assert_raises(ArgumentError) { Server.new(nil, {}, maxlength: 1) }
    serve(max_length: 512, max_depth: 4) do |server|
      Client.open(server.address) do |client|
        assert_equal "x" * 400, client.call("fill", 400)
        assert_equal "too large", assert_raises(RemoteError) { client.call("fill", 512) }.code
        assert_equal "no such method", assert_raises(RemoteError) { client.call("\x7F" * 200) }.code
        assert_equal [1], client.call("echo", [1])
        assert_raises(ConnectionLost) { client.call("echo", [[1]]) }
        assert_raises(ConnectionLost) { client.call("echo", "x" * 600) }
      end
    end
  end
end
