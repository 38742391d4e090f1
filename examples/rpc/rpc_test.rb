# frozen_string_literal: true

require_relative "../test_support"

# The example server with the example client; test/rpc has the library's own tests.
class RpcTest < ExampleTest
  TOUR = <<-'LINES'.gsub(/^ +/, "")
    echo: [{"a"=>[1, 2.5, nil, true, "text", "\xFF"]}]
    add: 42
    three in flight: answered in the order [0.2, 0.4, 0.6]
    three in flight: at once
    time-out: no answer in time (VORN::RPC::TimedOut)
    after a time-out: "still here"
    after its answer: "still here"
    unknown method: no such method: no method "format_disk" (VORN::RPC::RemoteError)
    wrong arguments: bad arguments: add takes 2, not 1 (VORN::RPC::RemoteError)
    result beyond 32 bits: overflow: the sum needs more than 32 bits (VORN::RPC::RemoteError)
    failure inside the service: failed: the service failed (VORN::RPC::RemoteError)
    result that has no encoding: failed: the result cannot be sent (VORN::RPC::RemoteError)
    too large to send: a frame of 1048591 bytes, 1048576 are allowed (VORN::Stream::MessageTooLarge)
    too large to answer: too large: a frame of 1048584 bytes, 1048576 are allowed (VORN::RPC::RemoteError)
    just fits: 1048476
  LINES

  %w[tcp unix].each do |kind|
    define_method("test_server_and_client_over_#{kind}") do
      within do
        program, address = serve("rpc/server.rb", kind == "tcp" ? "tcp:127.0.0.1:0" : "unix:#{@folder}/socket")
        tour = start("rpc/client.rb", address)
        assert_equal 0, tour.wait, tour.log
        # How a Hash is shown differs between Rubies.
        assert_equal TOUR, tour.output.sub("\"a\" =>", "\"a\"=>").sub("=> [1", "=>[1")
        # The log has the details that the client does not get.
        assert_match(/fail: as told \(RuntimeError\) at /, program.log)
        assert_match(/serialize_rbobj_to_packetbuf: unsupported rb_type/, program.log)
        program.signal("TERM")
        assert_equal 0, program.wait
      end
    end
  end
end
