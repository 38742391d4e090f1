# frozen_string_literal: true

# The C++ and the Ruby examples talk to each other over TCP and UNIX sockets. NATIVE is the folder of the built C++
# programs.

require "socket"
require "vorn_rpc/stream"
require_relative "../../test/support/vectors"
require_relative "../test_support"

class InteropTest < ExampleTest
  NATIVE = ENV.fetch("NATIVE")
  RPC_SERVER = File.join(NATIVE, "rpc_server")
  RPC_TOUR = File.join(NATIVE, "rpc_tour")

  # The output of every client with every server; how a value is printed differs between the languages.
  EXPECTED = ["add: 42", "three in flight: at once", "after a time-out: \"still here\"",
              "after its answer: \"still here\""].freeze
  FAILURES = [/^time-out: no answer in time/, /^unknown method: no such method/, /^wrong arguments: bad arguments/,
              /^failure inside the service: failed/, /^too large to send: /, /^too large to answer: /].freeze

  MINE = [1, nil, "mine"].freeze

  def test_clients_of_the_cpp_server
    server, address = serve(RPC_SERVER)
    tour("rpc/client.rb", address)
    tour(RPC_TOUR, address)
    ends(server)
  end

  def test_unix_sockets
    server, address = serve(RPC_SERVER, "unix:#{@folder}/native")
    tour("rpc/client.rb", address)
    ends(server)
    server, address = serve("rpc/server.rb", "unix:#{@folder}/ruby")
    tour(RPC_TOUR, address)
    ends(server)
  end

  # What the Ruby server answers: test/rpc/envelope_test.rb.
  def test_the_cpp_server_and_the_table
    server, address = serve(RPC_SERVER)
    Vectors.calls.each do |call|
      socket = TCPSocket.new(*address.sub("tcp:", "").split(":"))
      assert_equal call.outcome, call.outcome_at(socket), call.name
      socket.close
    end
    ends(server)
  end

  # A wrong check byte, and a length beyond the server's limit.
  def test_the_cpp_server_hangs_up_on_bad_frames
    server, address = serve(RPC_SERVER)
    host, port = address.sub("tcp:", "").split(":")
    ["\xA5\x00\x00\x00\x00\x00\x00\xDE\xAD\xBE\xEF\x59", "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF"].each do |bytes|
      TCPSocket.open(host, Integer(port)) do |socket|
        socket.write(bytes)
        assert IO.select([socket], nil, nil, 5), bytes.inspect
        assert_empty socket.read
      end
    end
    tour(RPC_TOUR, address)
    ends(server)
  end

  def test_the_cpp_client_of_the_ruby_server
    server, address = serve("rpc/server.rb")
    tour(RPC_TOUR, address)
    ends(server)
  end

  def test_the_cpp_client_takes_its_answer
    assert_call "\"mine\"", MINE, success: true
    assert_call "code: text", [1, %w[code text], nil]
    assert_call "\"mine\"", MINE, *Array.new(100) { [1, nil, "second"] }, success: true
  end

  def test_the_cpp_client_drops_answers_to_nothing
    beyond_32_bits = "\xA5\x01\0\0\0\0\0\x09\x0A\xA1\x80\x80\x80\x40\x00\x81\x0B" # of id 2**32 + 1
    assert_call "\"mine\"", [2, nil, 2], [nil, nil, nil], ["1", nil, "1"], [1.0, nil, 1.0], beyond_32_bits, MINE,
                success: true
  end

  def test_the_cpp_client_refuses_what_is_no_answer
    a_hash = VORN::Stream::Encoder.new.frame({}) # as the last argument it would become keywords before Ruby 3
    [["hello"], a_hash, [], [1, nil], [1, nil, 2, 3], [1, "error", nil], [1, [], nil], [1, ["code"], nil],
     [1, ["code", 2], nil], [1, [1, "text"], nil], [1, %w[code text more], nil]].each do |answer|
      assert_call "not an answer", answer
    end
    # In a frame with others, too.
    assert_call "not an answer", "\xA5\x01\0\0\0\0\0\x07" + "\x0A\x82\x00\x00\x0B" + "\x0A\x0B"
  end

  def test_the_cpp_client_takes_frames_of_any_number_of_answers
    two = "\xA5\x01\0\0\0\0\0\x0A" + "\x0A\x82\x00\x00\x0B" + "\x0A\x81\x00\x02\x0B" # of ids 2 and 1
    none = "\xA5\x01\0\0\0\0\0\0"
    assert_call "true", none, two, success: true
  end

  def test_the_cpp_client_refuses_bad_frames
    place = "(at byte 0 of the stream)"
    assert_call "bytes that belong to no frame #{place}", "HTTP/1.1 400\r\n"
    assert_call "a frame announces 1048577 bytes, 1048576 are accepted #{place}", "\xA5\x01\0\0\0\x10\0\x01"
    assert_call "a frame header with wrong check bytes #{place}", "\xA5\0\0\0\0\0\0\xDE\xAD\xBE\xEF\x59"
  end

  def test_the_cpp_client_of_a_server_that_leaves_or_says_nothing
    assert_call "the server closed the connection", leaves: true
    assert_call "the server closed the connection", "\xA5\x01\0", leaves: true
    assert_call "no answer in time"
  end

  private

  def ends(server)
    server.signal("TERM")
    assert_equal 0, server.wait
  end

  def output_of(client, *arguments)
    program = start(client, *arguments)
    status = program.wait(60)
    [program.output + program.log, status]
  end

  def tour(client, *arguments)
    text = output_of(client, *arguments).first
    assert_empty EXPECTED.reject { |line| text.lines.map(&:chomp).include?(line) }, text
    FAILURES.each { |line| assert_match line, text }
    text
  end

  # Checks the C++ client's output when its only call, with id 1, gets these messages or bytes as its answer.
  def assert_call(output, *answers, success: false, leaves: false)
    writer = VORN::Stream::Encoder.new
    bytes = answers.map { |answer| answer.is_a?(String) ? answer.b : writer.frame(answer) }.join
    answering(bytes, leaves) do |address|
      text, status = output_of(RPC_TOUR, address, "call", "now")
      assert_equal "#{output}\n", text, answers.inspect
      assert_equal success, status == 0, answers.inspect
    end
  end

  # Answers one request with these bytes, then waits for the client to disconnect unless `leaves`.
  def answering(bytes, leaves)
    listener = TCPServer.new("127.0.0.1", 0)
    thread = Thread.new do
      socket = listener.accept
      socket.readpartial(1000)
      socket.write(bytes)
      socket.read unless leaves
      socket.close
    end
    yield "tcp:127.0.0.1:#{listener.addr[1]}"
  ensure
    thread.kill
    listener.close
  end
end
