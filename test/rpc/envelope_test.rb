# frozen_string_literal: true

require_relative "../support/vectors"
require_relative "helper"

# The table of calls. bin/test interop sends it to the C++ server.
class RpcEnvelopeTest < RpcTest
  def test_the_server_and_the_table
    serve do |server|
      Vectors.calls.each do |call|
        connect(server) { |socket| assert_equal call.outcome, within { call.outcome_at(socket) }, call.name }
      end
    end
  end

  def test_the_client_and_the_table
    rows = Vectors.calls.map { |call| [call.name, call] }.to_h
    here, there = UNIXSocket.pair
    Client.open(->(_) { here }) do |client|
      calls = Thread.new { [client.call("echo", "x"), client.call("add", 3, 4)] }
      [rows["echo"], rows["add"]].each do |row|
        assert_equal row.payload, within { there.readpartial(100) }.byteslice(8..-1)
        there.write(Vectors.frame(Hex.decode(row.outcome[0])))
      end
      assert_equal ["x", 7], within { calls.value }
      client.notify("echo", 1)
      assert_equal rows["no id, no answer"].payload, within { there.readpartial(100) }.byteslice(8..-1)
    end
    there.close
  end
end
