# frozen_string_literal: true

require_relative "helper"

class RpcClientTest < RpcTest
  def test_calls_of_many_threads
    with_client do |client|
      threads = Array.new(20) do |one|
        Thread.new { (0...50).all? { |other| client.call("add", one, other) == one + other } }
      end
      assert within { threads.all?(&:value) }
    end
  end

  # They share one connection, and the answers come in their own order.
  def test_calls_in_flight_at_once
    with_client do |client|
      finished = Queue.new
      began = now
      threads = [0.6, 0.4, 0.2].map { |seconds| Thread.new { finished << client.call("sleep", seconds) } }
      threads.each(&:join)
      assert_operator now - began, :<, 1.1
      assert_equal [0.2, 0.4, 0.6], Array.new(3) { finished.pop }
    end
  end

  def test_time_outs
    with_client do |client|
      began = now
      error = assert_raises(TimedOut) { client.with(timeout: 0.2).call("sleep", 1) }
      assert_equal "no answer in time", error.message
      assert_includes 0.15..0.9, now - began
      # The late answer is dropped.
      assert_equal 1, client.call("echo", 1)
      assert_equal 1.2, client.call("sleep", 1.2)
    end
  end

  def test_a_silent_server
    fake_server(->(_) { "" }) do |address|
      Client.open(address, timeout: 0.2) { |client| assert_raises(TimedOut) { client.call("echo", 1) } }
    end
  end

  NO_ANSWERS = {
    "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF".b =>
      "a frame announces 2147483647 bytes, 1048576 are accepted (at byte 0 of the stream)",
    "HTTP/1.1 400\r\n" => "bytes that belong to no frame (at byte 0 of the stream)"
  }.merge(["hello", nil, [], [1, nil], [1, nil, 1, 1], [1, "error", nil], [1, ["code"], nil], [1, ["code", 1], nil],
           [1, [1, "text"], nil], [1, [], nil], [1, false, 1], { 1 => nil }]
          .map { |message| [VORN::Stream::Encoder.new.frame(message), "not an answer"] }.to_h).freeze

  def test_what_is_no_answer
    NO_ANSWERS.each do |bytes, reason|
      fake_server(->(_) { bytes }) do |address|
        Client.open(address) do |client|
          assert_equal reason, assert_raises(ConnectionLost) { client.call("echo", 1) }.message
        end
      end
    end
  end

  def test_answers_to_questions_never_asked
    others = frame([2, nil, 2]) + frame([nil, nil, nil]) + frame([1.0, nil, 1.0]) + frame(["1", nil, "1"]) + frame
    fake_server(->(_) { others * 100 + frame([1, nil, "mine"], [1, nil, "second"]) }) do |address|
      Client.open(address) { |client| assert_equal "mine", client.call("echo", 1) }
    end
  end

  # The server ends in the middle of a call, and comes back.
  def test_connections_that_are_lost
    answer = frame([1, nil, 1])
    (0...answer.bytesize).each do |cut|
      here, there = UNIXSocket.pair
      Client.open(->(_) { here }) do |client|
        call = Thread.new { assert_raises(ConnectionLost) { client.call("echo", 1) } }
        there.readpartial(100)
        there.write(answer.byteslice(0, cut))
        there.close
        assert_match(/closed the connection|reset/, within { call.value }.message)
        assert here.closed?
      end
    end
  end

  def test_a_server_that_restarts
    address = "unix:#{@folder}/socket"
    client = Client.new(address)
    serve(address, stop_seconds: 0.1) do |server|
      assert_equal 3, client.call("add", 1, 2)
      stopper = Thread.new { sleep(0.2); server.stop }
      assert_raises(ConnectionLost, RemoteError) { client.call("sleep", 5) }
      stopper.join
    end
    began = now
    error = assert_raises(ConnectionLost) { client.with(timeout: 0.5).call("add", 1, 2) }
    assert_match(/\Acannot connect: /, error.message)
    assert_operator now - began, :<, 1
    # A call that begins before the server does succeeds.
    call = Thread.new { client.call("add", 1, 2) }
    sleep(0.2)
    serve(address) do
      assert_equal 3, within { call.value }
      client.close
    end
  end

  # The end of a connection that nobody uses costs no call.
  def test_a_connection_that_ends_between_calls
    address = "unix:#{@folder}/socket"
    client = Client.new(address)
    2.times { serve(address) { assert_equal 3, client.call("add", 1, 2) } }
    client.close
  end

  # A server that is stopping has not executed the call, so every call goes on elsewhere.
  def test_a_call_that_a_stopping_server_refuses
    stopping = Queue.new
    runs = Queue.new
    refuse = lambda do |_name, arguments, &call|
      raise VORN::RPC::Refused.new("stopping", "going") unless stopping.empty? || arguments == [0]
      call.call.tap { |result| runs << result }
    end
    methods = METHODS.merge("echo" => ->(value) { sleep(0.3) if value.zero?; value })
    serve(methods: methods, around: refuse) do |first|
      serve(methods: methods) do |second|
        servers = [first, second].map(&:address)
        opened = []
        connect = ->(_) { opened << servers.first; TCPSocket.new(*servers.shift.sub("tcp:", "").split(":")) }
        Client.open(connect) do |client|
          assert_equal 1, client.call("echo", 1)
          in_flight = Thread.new { client.call("echo", 0) }
          sleep(0.1)
          stopping << true
          assert_equal 2, client.call("echo", 2)
          assert_equal 3, client.call("echo", 3)
          assert_equal [first.address, second.address], opened
          # The other call has its answer all the same, from the first.
          assert_equal 0, in_flight.value
          assert_equal [1, 0], Array.new(runs.size) { runs.pop }
          eventually("the first connection is closed") { first.send(:instance_variable_get, :@connections).empty? }
        end
      end
    end
  end

  # No other server within the deadline: the caller learns what the last one said.
  def test_a_call_that_every_server_refuses
    refusals = 0
    refuse = ->(*) { refusals += 1; raise VORN::RPC::Refused.new("stopping", "going") }
    with_client(around: refuse) do |client|
      began = now
      error = assert_raises(RemoteError) { client.with(timeout: 0.4).call("echo", 1) }
      assert_equal "stopping: going", error.message
      assert_includes 0.1..1, now - began
      assert_operator refusals, :>, 1
    end
  end

  # Each of a connection's calls is refused, and each goes on elsewhere.
  def test_calls_that_a_stopping_server_refuses_at_once
    refused = Queue.new
    refuse = lambda do |_name, _arguments, &call|
      next call.call if refused.size >= 4
      refused << true
      sleep(0.1)
      raise VORN::RPC::Refused.new("stopping", "going")
    end
    with_client(around: refuse) do |client|
      assert_equal 1, client.tap { 4.times { refused << true } }.call("echo", 1)
      refused.clear
      assert_equal [0, 1, 2, 3], Array.new(4) { |n| Thread.new { client.call("echo", n) } }.map(&:value)
    end
  end

  # Other errors say nothing of whether the call was executed, and repeating it helps nobody.
  def test_a_call_that_fails_is_not_made_again
    made = []
    failing = { "refuse" => -> { made << 1; raise VORN::RPC::Refused.new("overdrawn", "7 is too much") },
                "fail" => -> { made << 1; raise "as told" } }
    with_client(methods: failing) do |client|
      failing.each_key { |name| assert_raises(RemoteError) { client.with(repeat: true).call(name) } }
    end
    assert_equal [1, 1], made
  end

  # One that was about to use the connection when another was refused is not sent on it.
  def test_a_call_that_comes_as_another_is_refused
    here, there = UNIXSocket.pair
    limits = { max_length: 1000, max_depth: 8, preserve_symbols: false }
    connection = VORN::RPC.send(:const_get, :ClientConnection).new(here, **limits)
    calls = Array.new(2) do |number|
      Thread.new { connection.call("echo", [number], now + 10) rescue $! }
    end
    ids = messages(there, 2).map(&:first)
    there.write(frame([ids[0], %w[stopping going], nil]))
    eventually("one is refused") { !connection.usable? }
    unusable = connection.class::Unusable
    assert_equal "going", assert_raises(unusable) { connection.call("echo", [2], now + 10) }.message
    assert_equal "going", assert_raises(unusable) { connection.notify("echo", [2], now + 10) }.message
    there.write(frame([ids[1], nil, "answered"]))
    assert_equal ["answered", "stopping: going"], calls.map { |call| call.value.to_s }.sort
    assert connection.lost?
    assert_equal "", within { there.read }, "nothing more was sent"
  ensure
    [here, there].each { |socket| socket.close unless socket.closed? }
  end

  # A call that goes on where others are refused ends with its client all the same.
  def test_closing_a_client_whose_server_is_stopping
    refuse = lambda do |name, _arguments, &call|
      raise VORN::RPC::Refused.new("stopping", "going") if name == "echo"
      call.call
    end
    serve(around: refuse) do |first|
      serve do |second|
        servers = [first, second].map(&:address)
        client = Client.new(->(_) { TCPSocket.new(*servers.shift.sub("tcp:", "").split(":")) })
        in_flight = Thread.new { assert_raises(ConnectionLost) { client.call("sleep", 2) } }
        sleep(0.1)
        assert_equal 1, client.call("echo", 1)
        began = now
        client.close
        assert_equal "the client is closed", in_flight.value.message
        assert_operator now - began, :<, 1
      end
    end
  end

  def test_calls_that_may_be_repeated
    # Two connections end without an answer.
    fake_server(->(number) { number < 3 ? "\x00" : frame([1, nil, number]) }) do |address|
      Client.open(address, repeat: true) { |client| assert_equal 3, client.call("echo", 1) }
    end
    fake_server(->(_) { "\x00" }) do |address|
      Client.open(address) do |client|
        began = now
        assert_raises(ConnectionLost) { client.with(repeat: true, timeout: 0.4).call("echo", 1) }
        assert_includes 0.1..1, now - began
      end
    end
  end

  # Nothing is sent, and the connection remains.
  def test_arguments_that_cannot_be_sent
    with_client do |client|
      { RuntimeError => Time.now, RangeError => UNSENDABLE,
        VORN::Stream::MessageTooLarge => "x" * (1 << 20) }.each do |error, argument|
        assert_raises(error) { client.call("echo", argument) }
        assert_raises(error) { client.notify("echo", argument) }
        assert_equal 1, client.call("echo", 1)
      end
    end
  end

  # A connection that ends before it was of use is not replaced at once, for ever.
  def test_a_server_that_takes_and_closes
    accepted = 0
    listener = TCPServer.new("127.0.0.1", 0)
    closing = Thread.new { loop { listener.accept.close; accepted += 1 } }
    Client.open("tcp:127.0.0.1:#{listener.addr[1]}") do |client|
      10.times { assert_raises(ConnectionLost) { client.call("echo", 1) } }
      assert_operator accepted, :<=, 20
    end
  ensure
    closing.kill.join
    listener.close
  end

  # Nothing can follow a part of a request, so the next one needs another connection.
  def test_a_server_that_takes_nothing
    pairs = []
    connect = ->(_) { pairs.push(UNIXSocket.pair).last[0] }
    Client.open(connect, timeout: 0.2) do |client|
      error = assert_raises(ConnectionLost) { loop { client.notify("echo", "x" * 100_000) } }
      assert_match(/the server takes nothing/, error.message)
      assert pairs[0][0].closed?
      client.notify("echo", 1)
      assert_equal 2, pairs.size
    end
    pairs.each { |_, there| there.close }
  end

  # After the largest id comes 1: an id beyond 32 bits would come back as another. A call that waits keeps its own.
  def test_ids_wrap_around
    with_client do |client|
      client.call("echo", 0)
      connection = client.instance_variable_get(:@state).connection
      connection.instance_variable_set(:@last_id, 2**31 - 3)
      assert_equal [0, 1, 2, 3], Array.new(4) { |number| client.call("echo", number) }
      assert_equal 2, connection.instance_variable_get(:@last_id)

      connection.instance_variable_set(:@last_id, 0)
      long = Thread.new { client.call("sleep", 0.4) }
      eventually("it is under way") { connection.instance_variable_get(:@calls).keys == [1] }
      connection.instance_variable_set(:@last_id, 0)
      assert_equal 1, client.call("echo", 1)
      assert_equal 2, connection.instance_variable_get(:@last_id)
      assert_equal 0.4, within { long.value }
    end
  end

  def test_closing
    with_client do |client|
      calls = Array.new(3) { Thread.new { assert_raises(ConnectionLost) { client.call("sleep", 5) }.message } }
      sleep(0.2)
      client.close
      assert_equal ["the client is closed"] * 3, within { calls.map(&:value) }
      assert_equal "the client is closed", assert_raises(ConnectionLost) { client.call("echo", 1) }.message
      client.close
      began = now
      assert_raises(ConnectionLost) { client.with(repeat: true).call("echo", 1) }
      assert_operator now - began, :<, 1
    end
    Client.new("tcp:127.0.0.1:1").close # without a connection
    assert_equal 1, Client.open("tcp:127.0.0.1:1") { 1 }
  end

  def test_what_the_connection_raises
    assert_raises(KeyError) { Client.new(->(_) { {}.fetch(1) }).call("echo", 1) }
    error = assert_raises(ConnectionLost) { Client.new(->(_) { raise IOError, "no" }, timeout: 0.1).call("echo", 1) }
    assert_equal "cannot connect: no", error.message
    assert_match(/cannot connect: /, assert_raises(ConnectionLost) do
      Client.new("unix:#{@folder}/nothing", timeout: 0.1).call("echo", 1)
    end.message)
  end

  def test_a_hook_around_each_call
    calls = []
    around = lambda do |name, arguments, &run|
      result = run.call
      calls << [name, arguments, result]
      result
    end
    serve do |server|
      Client.open(server.address, around: around) do |client|
        assert_equal 3, client.call("add", 1, 2)
        assert_equal 7, client.with(timeout: 1).call("add", 3, 4)
        client.notify("add", 5, 6)
        assert_raises(RemoteError) { client.call("fail") }
      end
    end
    assert_equal [["add", [1, 2], 3], ["add", [3, 4], 7], ["add", [5, 6], nil]], calls
  end

  def test_symbols_and_limits
    serve do |server|
      Client.open(server.address) { |client| assert_equal "s", client.call("echo", :s) }
      Client.open(server.address, preserve_symbols: true, max_length: 100) do |client|
        # The server's own Symbols; its decoder makes Strings of the client's.
        assert_equal "s", client.call("echo", :s)
        assert_raises(VORN::Stream::MessageTooLarge) { client.call("echo", "x" * 100) }
        assert_raises(ConnectionLost) { client.call("fill", 100) }
      end
      Client.open(server.address, max_depth: 3) do |client|
        assert_equal [], client.call("echo", [])
        assert_raises(ConnectionLost) { client.call("echo", [[1]]) }
      end
    end
    serve(methods: { "symbol" => -> { :s } }) do |server|
      Client.open(server.address, preserve_symbols: true) { |client| assert_equal :s, client.call("symbol") }
    end
  end

  # A call that does not return is not held by Timeout either.
  def test_timeout_from_outside
    with_client do |client|
      assert_raises(Timeout::Error) { Timeout.timeout(0.1) { client.call("sleep", 2) } }
      assert_equal 1, client.call("echo", 1)
    end
  end
end
