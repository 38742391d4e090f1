# frozen_string_literal: true

require "socket"
require "vorn_rpc/rpc"
require_relative "../../test/support/certificate"
require_relative "../test_support"

# Three servers behind HAProxy with the example's own configuration, and a client whose calls end rightly whatever
# happens to one of them.
class SeveralServersTest < ExampleTest
  CONFIGURATION = File.expand_path("haproxy.cfg", __dir__)
  NAMES = %w[one two three].freeze
  DRAIN_SECONDS = 3

  def setup
    super
    @started = NAMES.map { |name| [name, [start_server(name)]] }.to_h # all processes of each server
    @ports = NAMES.map { |name| [name, port_of(current(name))] }.to_h
    @front = Addrinfo.tcp("127.0.0.1", 0).bind { |socket| socket.local_address.ip_port }
    start_balancer
    eventually("the balancer answers", 10, @balancer) { ping }
  end

  def start_server(name, port = 0)
    start("several_servers/server.rb", name, "tcp:127.0.0.1:#{port}", DRAIN_SECONDS.to_s)
  end

  def port_of(server)
    eventually("a server listens", 10, server) { server.output[/^listening on tcp:127.0.0.1:(\d+)\n/, 1] }
  end

  def current(name)
    @started[name].last
  end

  def restart(name)
    @started[name] << start_server(name, @ports[name])
    port_of(current(name))
  end

  # Yields the configuration's text, to be changed.
  def start_balancer
    text = File.read(CONFIGURATION)
    yield text if block_given?
    file = File.join(@folder, "haproxy.cfg")
    File.write(file, text)
    addresses = { "FRONT" => @front }.merge(@ports.map { |name, port| [name.upcase, port] }.to_h)
    env = addresses.map { |name, port| [name, "127.0.0.1:#{port}"] }.to_h
    @balancer = Program.new(@folder, "haproxy", "-db", "-f", file, env: env)
  end

  def teardown
    @balancer.stop("KILL")
  ensure
    super
  end

  def front
    "tcp:127.0.0.1:#{@front}"
  end

  def ping(address = front)
    VORN::RPC::Client.open(address, timeout: 1) { |client| client.call("ping") }
  rescue VORN::RPC::Error
    nil
  end

  def call(count, *arguments)
    start("several_servers/client.rb", front, count.to_s, *arguments.map(&:to_s))
  end

  # What all servers have executed: how often, by call.
  def executed(*names)
    names = NAMES if names.empty?
    lines = names.flat_map { |name| @started[name] }.flat_map { |server| server.output.lines.drop(1) }
    lines.each_with_object(Hash.new(0)) { |line, counts| counts[line.chomp] += 1 }
  end

  # How each call of a client that has finished ended, and its last line.
  def ends_of(client, seconds = 60)
    assert_equal 0, client.wait(seconds), client.log
    *lines, counts = client.output.lines.map(&:chomp)
    ends = lines.map { |line| line.split(": ", 2) }
    assert_equal ends.size, ends.map(&:first).uniq.size, "a call that ended twice"
    puts counts
    ends.to_h
  end

  # What may not be repeated was executed once, or at most once if its end is unknown.
  def assert_executed_rightly(ends, unknown)
    assert_empty ends.values.uniq - NAMES - unknown
    times = executed
    wrong = ends.reject do |what, how|
      least = NAMES.include?(how) ? 1 : 0
      most = what.start_with?("order") ? 1 : Float::INFINITY
      times[what].between?(least, most)
    end
    assert_empty wrong.first(5)
    assert_empty times.keys - ends.keys
  end

  def eventually_works(name)
    before = executed(name).size
    eventually("#{name} has work", 15, current(name)) { executed(name).size > before }
  end

  # The health check's bytes are those of a call and of its answers.
  def test_the_health_check_is_a_call
    request, answer, refusal = [[1, "ping", []], [1, nil, "pong"], [1, ["stopping", ""], nil]].map do |message|
      VORN::Stream::Encoder.new.frame(message).unpack("H*")[0]
    end
    refused = refusal[16, 26] # behind the header, before the text
    assert_equal ["tcp-check send-binary #{request}",
                  "tcp-check expect min-recv #{answer.size / 2} rbinary #{answer.upcase}|#{refused.upcase}",
                  "tcp-check expect min-recv #{answer.size / 2} error-status L7OKC binary #{answer}"],
                 File.readlines(CONFIGURATION).map(&:strip).grep(/\Atcp-check/)
    TCPSocket.open("127.0.0.1", @front) do |socket|
      socket.write([request].pack("H*"))
      assert_equal answer, socket.readpartial(100).unpack("H*")[0]
    end
  end

  # kill -9 in the middle of 10,000 calls.
  def test_a_killed_server
    client = call(10_000)
    eventually("it is in the middle", 20, client) { executed.size > 2500 }
    # One call of each kind is surely in progress when the server dies.
    long = {}
    begun = []
    eventually("each kind has begun", 10) do
      %w[order look_up].each { |what| long_call(what, long) } if (long.keys - executed.keys).empty?
      sleep(0.05)
      begun = executed("two").keys & long.keys
      begun.map { |what| what[/\w+/] }.uniq.size == 2
    end
    current("two").stop("KILL")
    ends = ends_of(client)
    assert_equal 10_000, ends.size
    long_ends = long.map { |what, thread| [what, thread.value] }.to_h
    assert_executed_rightly(ends.merge(long_ends), ["lost"])
    assert_operator ends.values.count("lost"), :<=, 8 # that were in progress
    assert_equal NAMES.sort, (ends.values.uniq - ["lost"]).sort
    orders, others = begun.partition { |what| what.start_with?("order") }
    assert_equal ["lost"], long_ends.values_at(*orders).uniq
    assert_empty ends.merge(long_ends).select { |what, how| how == "lost" && what.start_with?("look_up") }
    assert others.all? { |what| executed[what] == 2 }, "what may be repeated was made again"

    # It comes back, and gets work.
    restart("two")
    client = call(1_000_000)
    eventually_works("two")
    client.signal("TERM")
    assert_empty ends_of(client).values.uniq - NAMES
  end

  # Begins a call of two seconds, and keeps the thread whose value is its end.
  def long_call(what, long)
    number = 1_000_000 + long.size
    long["#{what} #{number}"] = Thread.new do
      begin
        VORN::RPC::Client.open(front, timeout: 15, repeat: what == "look_up") { |client| client.call(what, number, 2) }
      rescue VORN::RPC::ConnectionLost
        "lost"
      end
    end
  end

  # Each server in turn is stopped and started again. No call fails, whether it may be repeated or not, and however long
  # ago it began.
  def test_a_rolling_restart
    client = call(1_000_000)
    long = {}
    NAMES.each do |name|
      eventually_works(name)
      eventually("a long call has begun", 10) do
        long_call("order", long) if (long.keys - executed.keys).empty?
        sleep(0.05)
        !(executed(name).keys & long.keys).empty?
      end
      current(name).signal("TERM")
      assert_equal 0, current(name).wait
      # The check has seen it before it went.
      assert_includes @balancer.output, "servers/#{name} is stopping"
      restart(name)
      eventually_works(name)
    end
    client.signal("TERM")
    ends = ends_of(client).merge(long.map { |what, thread| [what, thread.value] }.to_h)
    assert_executed_rightly(ends, [])
    assert_equal ends.size, executed.values.inject(:+), "no call is executed twice"
  end

  # A server that neither answers nor closes: calls end at their deadlines, and the health check takes it out.
  def test_a_server_that_hangs
    client = call(1_000_000, 8, 0.5)
    NAMES.each { |name| eventually_works(name) }
    current("one").signal("STOP")
    eventually("deadlines end calls", 10, client) { client.output.include?("timed out") }
    eventually("it is out", 10, @balancer) { @balancer.output.include?("servers/one is DOWN, reason: Layer7 timeout") }
    sleep(0.6) # for what was lost, or repeated, as its connections ended
    reached = client.output.lines.size
    eventually("others do its work", 10, client) { client.output.lines.size > reached + 2000 }
    assert_empty client.output.lines.drop(reached).map { |line| line[/: (.+)/, 1] }.uniq - %w[two three]
    current("one").signal("CONT")
    eventually_works("one")
    client.signal("TERM")
    ends = ends_of(client)
    assert_executed_rightly(ends, ["lost", "timed out"])
    assert_operator ends.values.count { |how| !NAMES.include?(how) }, :<, 200
  end

  # More long calls than workers: checks that wait for a worker would fail in less time than the calls take.
  def test_servers_whose_workers_are_all_busy
    calls = Array.new(30) do |number|
      Thread.new do
        VORN::RPC::Client.open(front, timeout: 40) { |client| client.call("order", number, 8) }
      end
    end
    eventually("all workers are busy", 10) { executed.size >= 24 }
    assert_equal [8, 8, 8], NAMES.map { |name| executed(name).size }
    assert_empty within(30) { calls.map(&:value) }.uniq - NAMES
    refute_match(/servers\/\w+ is DOWN/, @balancer.output)
    assert_equal 30, executed.values.inject(:+)
  end

  # The balancer accepts connections all the same. What may be repeated waits for a server until its deadline.
  def test_without_servers
    NAMES.each { |name| current(name).stop("KILL") }
    eventually("all are out", 10, @balancer) do
      NAMES.all? { |name| @balancer.output.include?("servers/#{name} is DOWN") }
    end
    VORN::RPC::Client.open(front, timeout: 10) do |client|
      began = now
      assert_raises(VORN::RPC::ConnectionLost) { client.call("order", 1) }
      assert_operator now - began, :<, 2
      waiting = Thread.new { client.with(repeat: true).call("look_up", 1) }
      restart("one")
      assert_equal "one", within { waiting.value }
    end
  end

  # The balancer speaks TLS with the clients, and passes on what is in it.
  def test_tls_that_ends_at_the_balancer
    skip("this Ruby has no openssl") unless Certificate.available?
    key, certificate = Certificate.make
    File.write("#{@folder}/both.pem", certificate.to_pem + key.to_pem)
    @balancer.stop("KILL")
    start_balancer { |text| text.sub!(/^ +bind .*/, "\\0 ssl crt #{@folder}/both.pem") }
    eventually("a call by TLS", 10, @balancer) { ping(secure(certificate)) == "pong" }
    assert_nil ping
  end

  # The servers speak TLS, and the balancer passes on what it cannot read. Its health check is a client of its own.
  def test_tls_that_is_passed_on
    skip("this Ruby has no openssl") unless Certificate.available?
    key, certificate = Certificate.make
    tls = Certificate.server_context(key, certificate)
    methods = { "ping" => -> { "pong" } }
    server = VORN::RPC::Server.new("tcp:127.0.0.1:0", methods, tls: tls, logger: Logger.new(IO::NULL))
    running = Thread.new { server.run }
    File.write("#{@folder}/ca.pem", certificate.to_pem)
    @ports = @ports.merge("one" => server.address[/\d+\z/])
    @balancer.stop("KILL")
    checking = "server check check-ssl verify required ca-file #{@folder}/ca.pem"
    start_balancer { |text| text.sub!("server check", checking) }
    # The others have no TLS.
    out = /(?:two|three) is DOWN, reason: Layer6/
    eventually("they are out", 10, @balancer) { @balancer.output.scan(out).size == 2 }
    assert_equal "pong", ping(secure(certificate))
    refute_includes @balancer.output, "one is DOWN"
  ensure
    server.stop if server
    running.join if running
  end

  # A server does not understand the PROXY protocol, which tells the client's address.
  def test_the_proxy_protocol_is_not_understood
    @balancer.stop("KILL")
    start_balancer { |text| text.sub!("server check", "server check send-proxy-v2") }
    eventually("all are out", 10, @balancer) { @balancer.output.scan(/ is DOWN, reason: /).size >= 3 }
    assert_nil ping
    NAMES.each { |name| assert_includes current(name).log, "bytes that belong to no frame" }
  end

  # What connects a client by TLS.
  def secure(certificate)
    context = Certificate.client_context(certificate)
    lambda do |_seconds|
      OpenSSL::SSL::SSLSocket.new(TCPSocket.new("127.0.0.1", @front), context).tap do |ssl|
        ssl.sync_close = true
        ssl.connect
      end
    end
  end
end
