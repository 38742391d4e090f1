# frozen_string_literal: true

require "json"
require "socket"
require "vorn_rpc/rpc"

# The services that bench/calls.rb compares: each echoes a value over a UNIX socket. A server runs until it is ended.
# A client's run calls the block before each call of each of its connections, until the block returns false. Where
# the messages are ours to choose they are those of VORN::RPC: [1, "echo", [value]] and [1, nil, value].
module CallServices
  def self.request(value)
    [1, "echo", [value]]
  end

  def self.answer(request)
    id, _, arguments = request
    [id, nil, arguments[0]]
  end

  def self.check(answer, value)
    raise "a wrong answer" unless answer == value
  end

  def self.in_threads(count, &block)
    Array.new(count) { Thread.new(&block) }.each(&:join)
  end

  # Messages on a byte stream. bytes(value) are to be sent; feed(chunk) yields the values that it completes.
  class Frames
    def initialize
      @in = VORN::PROTO::PacketFrameIn.new.reset
      @out = VORN::PROTO::PacketFrameOut.new
    end

    def bytes(value)
      @out.reset
      @out << value
      @out.compute_frame_header.to_str
    end

    def feed(chunk)
      offset = 0
      while offset < chunk.bytesize
        offset += @in.assemble(chunk, offset)
        next unless @in.have_complete_frame?
        yield @in.seek_payload_start.extract_object
        @in.reset
      end
    end
  end

  # The same with the decoder and the encoder of streams, which check more.
  class Streams
    def initialize
      @decoder = VORN::Stream::Decoder.new
      @encoder = VORN::Stream::Encoder.new
    end

    def bytes(value)
      @encoder.frame(value)
    end

    def feed(chunk, &block)
      @decoder.feed_each(chunk, &block)
    end
  end

  class Msgpack
    def initialize
      require "msgpack"
      @unpacker = MessagePack::Unpacker.new
    end

    def bytes(value)
      MessagePack.pack(value)
    end

    def feed(chunk, &block)
      @unpacker.feed_each(chunk, &block)
    end
  end

  class JsonLines
    def initialize
      @held = "".dup
    end

    def bytes(value)
      JSON.generate(value) << "\n"
    end

    def feed(chunk)
      @held << chunk
      while (line = @held.slice!(/.*\n/))
        yield JSON.parse(line)
      end
    end
  end

  # One thread, which waits for all of its connections.
  class Loop
    def initialize(protocol)
      @protocol = protocol
    end

    def serve(path)
      listener = UNIXServer.new(path)
      connections = { listener => nil }
      loop do
        IO.select(connections.keys)[0].each do |socket|
          if socket.equal?(listener)
            connections[listener.accept] = @protocol.new
          else
            receive(connections, socket) do |request|
              socket.write(connections[socket].bytes(CallServices.answer(request)))
            end
          end
        end
      end
    end

    def run(path, clients, value)
      connections = Array.new(clients) { [UNIXSocket.new(path), @protocol.new] }.to_h
      connections.each { |socket, protocol| socket.write(protocol.bytes(CallServices.request(value))) if yield }
      loop do
        IO.select(connections.keys)[0].each do |socket|
          receive(connections, socket) do |answer|
            CallServices.check(answer[2], value)
            return unless yield
            socket.write(connections[socket].bytes(CallServices.request(value)))
          end
        end
      end
    end

    private

    def receive(connections, socket, &block)
      connections[socket].feed(socket.readpartial(65_536), &block)
    rescue EOFError, SystemCallError # the client has ended
      connections.delete(socket)
    end
  end

  # A thread for each connection.
  class Threads
    def initialize(protocol)
      @protocol = protocol
    end

    def serve(path)
      listener = UNIXServer.new(path)
      loop { Thread.new(listener.accept) { |socket| answer(socket) } }
    end

    def run(path, clients, value, &more)
      CallServices.in_threads(clients) { call(path, value, &more) }
    end

    private

    def answer(socket)
      protocol = @protocol.new
      loop { protocol.feed(socket.readpartial(65_536)) { |r| socket.write(protocol.bytes(CallServices.answer(r))) } }
    rescue EOFError, SystemCallError
      socket.close
    end

    def call(path, value)
      socket = UNIXSocket.new(path)
      protocol = @protocol.new
      while yield
        socket.write(protocol.bytes(CallServices.request(value)))
        answered = false
        until answered
          protocol.feed(socket.readpartial(65_536)) do |answer|
            CallServices.check(answer[2], value)
            answered = true
          end
        end
      end
    end
  end

  # The library of calls, with methods on worker threads or, with none, on the thread that reads for all. A thread for
  # each client.
  class Rpc
    def initialize(workers)
      @workers = workers
    end

    def serve(path)
      VORN::RPC::Server.new("unix:#{path}", { "echo" => ->(value) { value } }, workers: @workers).run
    end

    def run(path, clients, value)
      CallServices.in_threads(clients) do
        VORN::RPC::Client.open("unix:#{path}") do |client|
          CallServices.check(client.call("echo", value), value) while yield
        end
      end
    end
  end

  class Drb
    Echo = Class.new { def echo(value) value end }

    def serve(path)
      require "drb/unix"
      DRb.start_service("drbunix:#{path}", Echo.new)
      DRb.thread.join
    end

    def run(path, clients, value)
      require "drb/unix"
      CallServices.in_threads(clients) do
        service = DRbObject.new_with_uri("drbunix:#{path}")
        CallServices.check(service.echo(value), value) while yield
      end
    end
  end

  # gRPC with a message for the value, so that neither side looks names up. Its servers and clients have threads only.
  class Grpc
    def serve(path)
      echo = Class.new(self.class.service) do
        def echo(request, _call) request end
      end
      server = GRPC::RpcServer.new(pool_size: 64)
      server.add_http2_port("unix:#{path}", :this_port_is_insecure)
      server.handle(echo)
      server.run
    end

    # Clients in one process share a connection unless told otherwise.
    def run(path, clients, value)
      stub = self.class.service.rpc_stub_class
      message = self.class.message("Request")
      CallServices.in_threads(clients) do
        client = stub.new("unix:#{path}", :this_channel_is_insecure,
                          channel_args: { "grpc.use_local_subchannel_pool" => 1 })
        while yield
          request = message.new(value)
          CallServices.check(client.echo(request), request)
        end
      end
    end

    def self.service
      require "grpc"
      require "google/protobuf/descriptor_pb"
      define(Google::Protobuf)
      request = message("Request")
      Class.new do
        include GRPC::GenericService
        self.marshal_class_method = :encode
        self.unmarshal_class_method = :decode
        self.service_name = "bench.Echo"
        rpc :Echo, request, request
      end
    end

    def self.message(name)
      Google::Protobuf::DescriptorPool.generated_pool.lookup("bench.#{name}").msgclass
    end

    # Makes the classes that the protocol's compiler would, of the small request.
    def self.define(protobuf)
      messages = {
        "Params" => [{ name: "user", type: :TYPE_STRING }, { name: "amount", type: :TYPE_DOUBLE },
                     { name: "notify", type: :TYPE_BOOL }],
        "Request" => [{ name: "id", type: :TYPE_INT32 }, { name: "method", type: :TYPE_STRING },
                      { name: "params", type: :TYPE_MESSAGE, type_name: ".bench.Params" }]
      }
      types = messages.map do |name, fields|
        fields = fields.each_with_index.map do |field, i|
          protobuf::FieldDescriptorProto.new(number: i + 1, label: :LABEL_OPTIONAL, **field)
        end
        protobuf::DescriptorProto.new(name: name, field: fields)
      end
      file = protobuf::FileDescriptorProto.new(name: "bench.proto", package: "bench", syntax: "proto3",
                                               message_type: types)
      protobuf::DescriptorPool.generated_pool.add_serialized_file(protobuf::FileDescriptorProto.encode(file))
    end
  end

  # The libraries that a service needs and an interpreter may lack.
  NEEDS = { "msgpack" => "msgpack", "gRPC" => "grpc" }.freeze

  def self.missing(name)
    library = NEEDS[name]
    library if library && Gem.find_files(library).empty?
  end

  ALL = {
    "loop" => {
      "frames" => Loop.new(Frames), "streams" => Loop.new(Streams), "msgpack" => Loop.new(Msgpack),
      "JSON lines" => Loop.new(JsonLines)
    },
    "threads" => {
      "frames" => Threads.new(Frames), "streams" => Threads.new(Streams), "msgpack" => Threads.new(Msgpack),
      "JSON lines" => Threads.new(JsonLines), "rpc" => Rpc.new(8), "rpc, no workers" => Rpc.new(0), "DRb" => Drb.new,
      "gRPC" => Grpc.new
    }
  }.freeze
end
