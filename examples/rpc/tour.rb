# frozen_string_literal: true

# What a client can do and what can go wrong, one line of output each. together runs jobs at once and returns their
# results.
def tour(client, together)
  show("echo") { client.call("echo", [{ "a" => [1, 2.5, nil, true, "text", "\xFF".b] }]) }
  show("add") { client.call("add", [20, 22]) }

  finished = []
  began = Sockets.now
  together.call([0.6, 0.4, 0.2].map { |seconds| -> { finished << client.call("pause", [seconds]) } })
  puts "three in flight: answered in the order #{finished.inspect}"
  # Sequentially they would take 1.2 s.
  puts "three in flight: #{Sockets.now - began < 1.1 ? "at once" : "one after the other"}"

  show("time-out") { client.call("pause", [0.3], 0.1) }
  show("after a time-out") { client.call("echo", ["still here"]) }
  client.call("pause", [0.3]) # long enough for the answer of the timed-out call to arrive
  puts "late answers dropped: #{client.late}"

  show("unknown method") { client.call("format_disk") }
  show("wrong arguments") { client.call("add", [1]) }
  show("result beyond 32 bits") { client.call("add", [2**31 - 1, 1]) }
  show("failure inside the service") { client.call("fail") }
  show("result that has no encoding") { client.call("now") }
  show("too large to send") { client.call("echo", ["x" * (1 << 20)]) }
  show("too large to answer") { client.call("fill", [1 << 20]) }
  show("just fits") { client.call("fill", [(1 << 20) - 100]).bytesize }
end

def show(name)
  puts "#{name}: #{yield.inspect}"
rescue RemoteError, TimedOut, VORN::Stream::MessageTooLarge => e
  puts "#{name}: #{e.message} (#{e.class})"
end
