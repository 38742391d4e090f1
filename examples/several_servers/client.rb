# frozen_string_literal: true

# Makes calls through a balancer, half of which may be repeated, and prints how each ended, with the name of the server
# that answered.
#
#   ruby -Ilib examples/several_servers/client.rb ADDRESS [CALLS [THREADS [TIMEOUT]]]
#
# On TERM it makes no more calls. The last line of output has the counts.

require "vorn_rpc/rpc"

address = ARGV.fetch(0)
calls = Integer(ARGV.fetch(1, 1000))
threads = Integer(ARGV.fetch(2, 8))
timeout = Float(ARGV.fetch(3, 5))

# A balancer chooses a server for a connection, not for a call. With new connections now and then, a server that has
# come back gets its share.
CALLS_OF_A_CONNECTION = 250

stopping = false
trap("TERM") { stopping = true }
$stdout.sync = true

def answer(client, what, number)
  client.with(repeat: what == "look_up").call(what, number)
rescue VORN::RPC::ConnectionLost
  "lost"
rescue VORN::RPC::TimedOut
  "timed out"
rescue VORN::RPC::RemoteError => e
  e.message
end

counts = Array.new(threads) do |thread|
  Thread.new do
    ends = Hash.new(0)
    thread.step(calls - 1, threads).each_slice(CALLS_OF_A_CONNECTION) do |numbers|
      VORN::RPC::Client.open(address, timeout: timeout) do |client|
        numbers.each do |number|
          break if stopping
          what = (number / threads).even? ? "look_up" : "order"
          ends[how = answer(client, what, number)] += 1
          print "#{what} #{number}: #{how}\n" # one write: threads share the output
        end
      end
    end
    ends
  end
end.map(&:value)
total = counts.each_with_object(Hash.new(0)) { |ends, all| ends.each { |how, count| all[how] += count } }
puts total.sort.map { |how, count| "#{how} #{count}" }.join(", ")
