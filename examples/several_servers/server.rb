# frozen_string_literal: true

# One of several servers behind a balancer.
#
#   ruby -Ilib examples/several_servers/server.rb NAME [ADDRESS [DRAIN_SECONDS]]
#
# The first line of output is its address; each later one is a call that was executed.
#
# On TERM it drains: what has begun goes on, and every further call is refused as "stopping", the balancer's ping too,
# so that clients and new connections go to other servers. After DRAIN_SECONDS (5) it stops. That is longer than a call
# takes, and than the time until the balancer's next ping: the balancer ends the connections of a server that it does
# not reach any more.

require "vorn_rpc/rpc"

name = ARGV.fetch(0)
drain_seconds = Float(ARGV.fetch(2, 5))
draining = false

work = lambda do |what, number, seconds|
  ok = number.is_a?(Integer) && (0..10).cover?(seconds)
  raise VORN::RPC::Refused.new("bad arguments", "numbers wanted") unless ok
  print "#{what} #{number}\n" # one write: threads share the output
  sleep(seconds)
  name
end

# "order" must not be executed twice, "look_up" may be.
methods = {
  "ping" => -> { "pong" },
  "order" => ->(number, seconds = 0.002) { work.call("order", number, seconds) },
  "look_up" => ->(number, seconds = 0.002) { work.call("look_up", number, seconds) }
}

# What has begun goes on. Clients make a call that is refused as "stopping" again elsewhere: it was not executed.
drain = lambda do |_name, _arguments, &call|
  raise VORN::RPC::Refused.new("stopping", "#{name} is draining") if draining
  call.call
end

# Each ping ends with a reset, which the log would have as "info".
logger = Logger.new($stderr)
logger.level = Logger::WARN

# A server whose workers are all busy is alive: ping waits for none.
options = { inline: ["ping"], around: drain, logger: logger }
server = VORN::RPC::Server.new(ARGV.fetch(1, "tcp:127.0.0.1:0"), methods, **options)
trap("TERM") do
  draining = true
  Thread.new { sleep(drain_seconds); server.stop }
end
$stdout.sync = true
puts "listening on #{server.address}"
server.run
