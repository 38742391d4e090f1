# frozen_string_literal: true

require "minitest/autorun"
require "socket"
require "stringio"
require "timeout"
require "tmpdir"
require "vorn_rpc/rpc"

# Servers in this process, and peers that are only sockets.
class RpcTest < Minitest::Test
  Client = VORN::RPC::Client
  Server = VORN::RPC::Server
  ConnectionLost = VORN::RPC::ConnectionLost
  RemoteError = VORN::RPC::RemoteError
  TimedOut = VORN::RPC::TimedOut

  METHODS = {
    "echo" => ->(value) { value },
    "add" => ->(a, b) { a + b },
    "sleep" => ->(seconds) { sleep(seconds); seconds },
    "fill" => ->(size) { "x" * size },
    "fail" => -> { raise "as told" }
  }.freeze

  # An Integer that cannot be sent: it would be cut, or, where immediate Integers have 31 bits and nothing is cut, does
  # not fit 64.
  UNSENDABLE = 0.size < 8 ? 2**64 : 5_000_000_000

  # Each way for a server to run methods: worker threads, and the thread of its loop.
  WORKERS = [8, 0].freeze

  def setup
    within {} # newer Rubies keep a thread for it
    @threads = Thread.list
    @folder = Dir.mktmpdir("vorn-rpc")
  end

  # Neither a server nor a client leaves a thread behind.
  def teardown
    eventually("no thread is left") { (Thread.list - @threads).empty? }
  ensure
    FileUtils.remove_entry(@folder)
  end

  # Yields a running server and its log.
  def serve(address = "tcp:127.0.0.1:0", methods: METHODS, **options)
    log = StringIO.new
    server = Server.new(address, methods, logger: Logger.new(log), **options)
    thread = Thread.new { server.run }
    thread.report_on_exception = false if thread.respond_to?(:report_on_exception=)
    result = yield server, log
    server.stop
    assert thread.join(10), "the server does not stop"
    result
  ensure
    thread.kill.join if thread
  end

  # Yields a running server's client.
  def with_client(**options)
    serve(**options) { |server, log| Client.open(server.address) { |client| yield client, log, server } }
  end

  # A server that answers each connection with the bytes that the block returns for its number, and then waits for its
  # end. Yields its address.
  def fake_server(answer)
    listener = TCPServer.new("127.0.0.1", 0)
    sockets = []
    thread = Thread.new do
      loop do
        sockets << (socket = listener.accept)
        socket.readpartial(1000)
        socket.write(answer.call(sockets.size))
      end
    end
    thread.report_on_exception = false if thread.respond_to?(:report_on_exception=)
    yield "tcp:127.0.0.1:#{listener.addr[1]}"
  ensure
    thread.kill.join
    [listener, *sockets].each(&:close)
  end

  def frame(*messages)
    VORN::Stream::Encoder.new.frame(*messages)
  end

  # A client's socket without the library.
  def connect(server)
    kind, where = server.address.split(":", 2)
    socket = kind == "unix" ? UNIXSocket.new(where) : TCPSocket.new(*where.split(":"))
    return socket unless block_given?
    begin
      yield socket
    ensure
      socket.close
    end
  end

  # The next `count` messages.
  def messages(socket, count)
    within { VORN::Stream::Reader.new(socket).first(count) }
  end

  # Whether the peer closes the connection. What it sends first is dropped.
  def closed?(socket)
    within { socket.read }
    true
  rescue Errno::ECONNRESET
    true
  end

  def eventually(what, seconds = 10)
    limit = now + seconds
    until (result = yield)
      flunk("not in #{seconds} s: #{what}") if now > limit
      sleep(0.005)
    end
    result
  end

  def now
    Process.clock_gettime(Process::CLOCK_MONOTONIC)
  end

  def within(seconds = 20, &block)
    Timeout.timeout(seconds, &block)
  end
end
