# frozen_string_literal: true

# The C++ and the Ruby examples talk to each other over loopback TCP. Called by bin/test interop with the folder of the
# built C++ programs.

require "socket"
require "timeout"
require_relative "../rpc/framing"

NATIVE = ARGV.fetch(0)
RUBY = [ENV["RUBY"] || "ruby", *$LOAD_PATH.first(2).map { |dir| "-I#{dir}" }].freeze
RPC = File.expand_path("../rpc", __dir__)

@passed = @failed = 0

def report(name, good, output = "")
  good ? @passed += 1 : @failed += 1
  puts "#{good ? 'ok' : 'FAILED'}: #{name}"
  puts output unless good
end

# Runs a server while the block does, which gets its address. It must end by itself when it is told to.
def serve(name, *command)
  out, writer = IO.pipe
  pid = Process.spawn(*command, out: writer, err: File::NULL)
  writer.close
  address = Timeout.timeout(20) { out.gets }.split.last
  yield address
ensure
  Process.kill(:TERM, pid)
  status = Timeout.timeout(20) { Process.wait2(pid)[1] }
  report("#{name} ends when it is told to", status.success?, status.inspect)
  out.close
end

def output_of(*command)
  Timeout.timeout(60) { IO.popen(command, err: [:child, :out], &:read) }
end

# The lines that every client prints against every server; how a value is shown differs between the languages.
EXPECTED = ["add: 42", "three in flight: at once", "after a time-out: \"still here\"", "late answers dropped: 1"].freeze
FAILURES = [/^time-out: no answer in time/, /^unknown method: no such method/, /^wrong arguments: bad arguments/,
            /^failure inside the service: failed/, /^too large to send: /, /^too large to answer: /].freeze

def tour(name, *command)
  text = output_of(*command)
  missing = EXPECTED.reject { |line| text.lines.map(&:chomp).include?(line) } + FAILURES.reject { |line| text =~ line }
  report(name, missing.empty?, "#{text}missing: #{missing.inspect}")
end

serve("C++ server", File.join(NATIVE, "rpc_server")) do |address|
  tour("Ruby client with threads, C++ server", *RUBY, File.join(RPC, "thread_client.rb"), address)
  tour("Ruby client with fibers, C++ server", *RUBY, File.join(RPC, "fiber_client.rb"), address)
  tour("C++ client, C++ server", File.join(NATIVE, "rpc_tour"), address)

  host, port = address.sub("tcp:", "").split(":")
  # A check byte that is wrong, and a length beyond what the server takes: it hangs up.
  ["\xA5\x00\x00\x00\x00\x00\x00\xDE\xAD\xBE\xEF\x59", "\xA5\x01\x00\x00\x7F\xFF\xFF\xFF"].each do |bytes|
    hung_up = TCPSocket.open(host, Integer(port)) do |socket|
      socket.write(bytes)
      IO.select([socket], nil, nil, 5) && socket.read.empty?
    end
    report("C++ server hangs up on a bad frame", hung_up)
  end
  tour("C++ server serves on", File.join(NATIVE, "rpc_tour"), address, "12")
end

serve("Ruby server with threads", *RUBY, File.join(RPC, "thread_server.rb")) do |address|
  tour("C++ client, Ruby server, 8-byte headers", File.join(NATIVE, "rpc_tour"), address, "8")
  tour("C++ client, Ruby server, 12-byte headers", File.join(NATIVE, "rpc_tour"), address, "12")
end

# Takes one request and answers it with these bytes, then waits for the client to leave unless it is to be left.
def fake_server(bytes, leaves: false)
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

# What a C++ client makes of these messages to its one call, whose id is 1, or of such bytes.
def expect_of_answers(name, output, *answers, success: false, leaves: false)
  writer = FrameWriter.new(1000)
  bytes = answers.map { |answer| answer.is_a?(String) ? answer.b : writer.frame(answer) }.join
  fake_server(bytes, leaves: leaves) do |address|
    text = output_of(File.join(NATIVE, "rpc_tour"), address, "call", "now")
    report("C++ client, #{name}", text == "#{output}\n" && $?.exited? && $?.success? == success, "#{text}#{$?}")
  end
end

mine = [1, nil, "mine"]
expect_of_answers("an answer", '"mine"', mine, success: true)
expect_of_answers("an error", "code: text", [1, %w[code text], nil])
expect_of_answers("several answers to one call", '"mine"', mine, *Array.new(100) { [1, nil, "second"] }, success: true)
expect_of_answers("answers to nothing", '"mine"', [2, nil, 2], [nil, nil, nil], ["1", nil, "1"], [1.0, nil, 1.0],
                  "\xA5\x01\0\0\0\0\0\x09\x0A\xA1\x80\x80\x80\x40\x00\x81\x0B", mine, success: true) # 2**32 + 1
[["hello"], {}, [], [1, nil], [1, nil, 2, 3], [1, "error", nil], [1, [], nil], [1, ["code"], nil],
 [1, ["code", 2], nil], [1, [1, "text"], nil], [1, %w[code text more], nil]].each do |answer|
  expect_of_answers("the answer #{answer.inspect}", "not an answer", answer)
end
expect_of_answers("two messages in a frame", "not an answer", "\xA5\x01\0\0\0\0\0\x0A" + "\x0A\x81\x00\x00\x0B" * 2)
expect_of_answers("a frame without a message", "not an answer", "\xA5\x01\0\0\0\0\0\0")
expect_of_answers("bytes of another protocol", "bytes that belong to no frame", "HTTP/1.1 400\r\n")
expect_of_answers("a frame too long", "a frame announces 1048577 bytes, 1048576 are accepted",
                  "\xA5\x01\0\0\0\x10\0\x01")
expect_of_answers("a check byte that is wrong", "Bad Header CRC", "\xA5\0\0\0\0\0\0\xDE\xAD\xBE\xEF\x59")
expect_of_answers("a server that leaves", "the server closed the connection", leaves: true)
expect_of_answers("a server that leaves within an answer", "the server closed the connection", "\xA5\x01\0",
                  leaves: true)
expect_of_answers("a silent server", "no answer in time")

# What hostile clients can do to the Ruby servers, on the C++ one.
server = File.expand_path("rpc_server", NATIVE)
attack = IO.popen([{ "SERVER" => server }, *RUBY, File.join(RPC, "hostile_clients_test.rb"), err: [:child, :out]],
                  &:read)
report("C++ server under hostile clients", $?.success?, attack)

puts "#{@passed} passed, #{@failed} failed"
exit @failed.zero?
