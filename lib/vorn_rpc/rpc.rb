# frozen_string_literal: true

require "vorn_rpc/stream"
require "vorn_rpc/rpc/clock"
require "vorn_rpc/rpc/errors"
require "vorn_rpc/rpc/envelope"
require "vorn_rpc/rpc/address"
require "vorn_rpc/rpc/interrupts"
require "vorn_rpc/rpc/method_table"
require "vorn_rpc/rpc/client"
require "vorn_rpc/rpc/server"

module VORN
  # Calls: a client sends the name of a method and arguments, a server answers with a result or an error.
  #
  #   server = VORN::RPC::Server.new("tcp:127.0.0.1:0", { "add" => ->(a, b) { a + b } })
  #   running = Thread.new { server.run }
  #   VORN::RPC::Client.open(server.address) { |client| client.call("add", 20, 22) }  # => 42
  #   server.stop
  #   running.join
  #
  # An address is "tcp:HOST:PORT" or "unix:PATH". Arguments and results are values that the codec knows, as in
  # VORN::Stream.
  module RPC
    private_constant :Address, :ClientConnection, :Clock, :Envelope, :Interrupts, :MethodTable, :Patience
    private_constant :ServerConnection, :Silent, :Workers
  end
end
