# frozen_string_literal: true

# The RPC server of thread_server.rb with fibers: one per connection and one per request, all on one thread. A request
# that computes for long, or blocks outside the reactor, stops them all.
#
#   ruby -Ilib examples/rpc/fiber_server.rb [ADDRESS [IDLE_SECONDS]]
#
# TERM and INT end it immediately.

require "logger"
require "vorn_rpc/stream"
require_relative "fiber_socket"
require_relative "patience"
require_relative "reactor"
require_relative "service"
require_relative "sockets"

class FiberServer
  MAX_PAYLOAD = 1 << 20
  MAX_CONNECTIONS = 200
  MAX_IN_PROGRESS = 16    # requests of one client; beyond that, the server stops reading and TCP slows the client down
  MAX_UNSENT = 256 << 10  # bytes of unread answers of one client; beyond that, none of its requests is begun
  WRITE_SECONDS = 2       # how long a client may leave its answers unread
  TURN_SECONDS = 0.01     # how long requests of one client are begun before other clients have their turn
  IDLE_SECONDS = 60       # how long a client that waits for no answer may be silent

  # gone: nothing can be sent any more.
  Client = Struct.new(:socket, :name, :writer, :in_progress, :waiting, :gone)

  def initialize(address, log, idle_seconds = IDLE_SECONDS, reactor = Reactor.new)
    @listener = Sockets.listen(address)
    @log = log
    @idle_seconds = idle_seconds
    @reactor = reactor
    @service = Service.new(log) { |seconds| reactor.sleep(seconds) }
    @connections = 0
  end

  def address
    Sockets.address_of(@listener)
  end

  def run
    @reactor.spawn { loop { accept } }
    @reactor.run
  ensure
    @listener.close
  end

  private

  def accept
    socket, = @listener.accept_nonblock
    if @connections >= MAX_CONNECTIONS
      @log.warn("too many connections; closing the newest")
      return socket.close
    end
    @connections += 1
    @reactor.spawn { serve(socket) }
  rescue IO::WaitReadable
    @reactor.wait_readable(@listener)
  rescue Errno::ECONNABORTED
    nil # disconnected before it was accepted
  rescue SystemCallError => e
    @log.error(e.message)
    @reactor.sleep(0.1) # until a connection closes, in case descriptors ran out
  end

  # Only the fiber that reads from a connection closes it. No exception leaves this method or #work: it would end the
  # reactor, and the service for all clients.
  def serve(socket)
    name = Sockets.name_of(socket)
    Sockets.prepare(socket)
    receive(Client.new(FiberSocket.new(socket, @reactor), name, VORN::Stream::Encoder.new(max_length: MAX_PAYLOAD), 0))
  rescue VORN::Stream::DamagedStream, BadMessage, Silent => e
    @log.warn("#{name}: #{e.message}; closing")
  rescue SystemCallError => e
    @log.info("#{name}: #{e.message}")
  rescue *Service::FAILURES => e
    @log.error("#{name}: #{e.message} (#{e.class}); closing")
  ensure
    @connections -= 1
    @reactor.close(socket)
  end

  def receive(client)
    reader = VORN::Stream::Decoder.new(max_length: MAX_PAYLOAD)
    patience = Patience.new(@idle_seconds)
    loop do
      patience.over(client.in_progress) until client.socket.wait_readable(patience.deadline)
      return unless (chunk = client.socket.read)

      turn = nil
      reader.feed_each(chunk) do |request|
        @service.check(request)
        turn = take_turn(turn)
        wait_for_room(client)
        return if client.gone

        patience.whole_frame
        client.in_progress += 1
        # Started at once, so that its answer counts before the next request, possibly of the same chunk, is begun.
        @reactor.start { work(client, request) }
      end
      patience.heard(reader.between_frames?)
    end
  end

  # Returns when the turn ends. The requests of a chunk begin with one; most chunks have but one request.
  def take_turn(turn)
    time = Sockets.now
    return turn if turn && time <= turn

    @reactor.pass if turn
    time + TURN_SECONDS
  end

  def wait_for_room(client)
    until client.gone || client.in_progress < MAX_IN_PROGRESS && client.socket.unsent <= MAX_UNSENT
      client.waiting = Fiber.current
      @reactor.park
      client.waiting = nil
    end
  end

  def work(client, request)
    bytes = @service.frame(client.writer, @service.answer(request))
    client.socket.write(bytes, WRITE_SECONDS) unless client.gone
  rescue *Service::FAILURES => e
    # The client has disconnected or reads no answers. Shutting the socket down makes the reader close it.
    @log.info("#{client.name}: #{e.message}; answer dropped")
    client.gone = true
    client.socket.shutdown
  ensure
    client.in_progress -= 1
    @reactor.wake(client.waiting) if client.waiting
  end
end

if $PROGRAM_NAME == __FILE__
  log = Logger.new($stderr)
  server = FiberServer.new(ARGV[0] || "tcp:127.0.0.1:0", log, Float(ARGV[1] || FiberServer::IDLE_SECONDS))
  puts "listening on #{server.address}"
  $stdout.flush
  begin
    server.run
  rescue SignalException => e
    log.info("ended by #{e.message}")
  end
end
