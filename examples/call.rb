# frozen_string_literal: true

require "vorn_rpc/rpc"

server = VORN::RPC::Server.new("tcp:127.0.0.1:0", { "add" => ->(one, other) { one + other } })
running = Thread.new { server.run }

VORN::RPC::Client.open(server.address, timeout: 2) do |client|
  puts client.call("add", 20, 22)
end
server.stop
running.join
# prints 42
