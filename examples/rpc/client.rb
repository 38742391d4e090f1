# frozen_string_literal: true

# What a client can do and what can go wrong, one line of output each. Run it with a server to see:
#
#   ruby -Ilib examples/rpc/client.rb ADDRESS

require "vorn_rpc/rpc"

def show(name)
  puts "#{name}: #{yield.inspect}"
rescue VORN::RPC::Error, VORN::Stream::MessageTooLarge => e
  puts "#{name}: #{e.message} (#{e.class})"
end

def now
  Process.clock_gettime(Process::CLOCK_MONOTONIC)
end

VORN::RPC::Client.open(ARGV.fetch(0)) do |client|
  show("echo") { client.call("echo", [{ "a" => [1, 2.5, nil, true, "text", "\xFF".b] }]) }
  show("add") { client.call("add", 20, 22) }

  finished = Queue.new
  began = now
  calls = [0.6, 0.4, 0.2].map { |seconds| Thread.new { finished << client.call("pause", seconds) } }
  calls.each(&:join)
  puts "three in flight: answered in the order #{Array.new(3) { finished.pop }.inspect}"
  # Sequentially they would take 1.2 s.
  puts "three in flight: #{now - began < 1.1 ? "at once" : "one after the other"}"

  show("time-out") { client.with(timeout: 0.1).call("pause", 0.3) }
  show("after a time-out") { client.call("echo", "still here") }
  client.call("pause", 0.3) # long enough for the answer of the timed-out call to arrive
  show("after its answer") { client.call("echo", "still here") }

  show("unknown method") { client.call("format_disk") }
  show("wrong arguments") { client.call("add", 1) }
  show("result beyond 32 bits") { client.call("add", 2**31 - 1, 1) }
  show("failure inside the service") { client.call("fail") }
  show("result that has no encoding") { client.call("now") }
  show("too large to send") { client.call("echo", "x" * (1 << 20)) }
  show("too large to answer") { client.call("fill", 1 << 20) }
  show("just fits") { client.call("fill", (1 << 20) - 100).bytesize }
end
