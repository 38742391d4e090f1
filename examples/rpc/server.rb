# frozen_string_literal: true

# An RPC server.
#
#   ruby -Ilib examples/rpc/server.rb [ADDRESS [IDLE_SECONDS]]
#
# ADDRESS defaults to tcp:127.0.0.1:0 (the kernel chooses the port), or is unix:PATH. The first line of output is the
# address. On TERM and INT it answers what was begun, for up to 2 s, and exits.

require "vorn_rpc/rpc"
require_relative "service"

server = VORN::RPC::Server.new(ARGV[0] || "tcp:127.0.0.1:0", Service.methods_by_name,
                               idle_seconds: Float(ARGV[1] || 60))
%w[TERM INT].each { |signal| trap(signal) { server.stop } }
puts "listening on #{server.address}"
$stdout.flush
server.run
