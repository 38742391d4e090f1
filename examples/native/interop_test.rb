# frozen_string_literal: true

# The C++ and the Ruby examples talk to each other over loopback TCP. Called by bin/test-interop with the folder of the
# built C++ programs.

require "socket"
require "timeout"

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

# What hostile clients can do to the Ruby servers, on the C++ one.
server = File.expand_path("rpc_server", NATIVE)
attack = IO.popen([{ "SERVER" => server }, *RUBY, File.join(RPC, "hostile_clients_test.rb"), err: [:child, :out]],
                  &:read)
report("C++ server under hostile clients", $?.success?, attack)

puts "#{@passed} passed, #{@failed} failed"
exit @failed.zero?
