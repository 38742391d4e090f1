# frozen_string_literal: true

# The RPC server of thread_server.rb with fibers: one for each connection and one for each request, all on one
# thread. Work that computes for long, or waits by other means than the reactor's, stops them all.
#
#   ruby -Ilib examples/rpc/fiber_server.rb [ADDRESS]
#
# TERM and INT end it at once.

require "logger"
require_relative "fiber_socket"
require_relative "framing"
require_relative "reactor"
require_relative "service"
require_relative "sockets"

class FiberServer
  MAX_PAYLOAD = 1 << 20
  MAX_CONNECTIONS = 200
  MAX_IN_FLIGHT = 64    # requests of one connection; with more, nothing more is read and the client feels it
  MAX_UNSENT = 4 << 20  # bytes of answers, likewise
  WRITE_SECONDS = 2     # how long a client may leave its answers unread

  Connection = Struct.new(:socket, :name, :writer, :in_flight, :waiting)

  def initialize(address, log, reactor = Reactor.new)
    @listener = Sockets.listen(address)
    @log = log
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
    nil # gone before it was accepted
  rescue Errno::EMFILE, Errno::ENFILE => e
    @log.error(e.message)
    @reactor.sleep(0.1) # until a connection is closed
  end

  # A connection is closed by the fiber that reads it, and by no other.
  def serve(socket)
    name = Sockets.name_of(socket)
    Sockets.prepare(socket)
    connection = Connection.new(FiberSocket.new(socket, @reactor), name, FrameWriter.new(MAX_PAYLOAD), 0, nil)
    reader = FrameReader.new(MAX_PAYLOAD)
    while (chunk = connection.socket.read)
      reader.feed(chunk) do |request|
        @service.check(request)
        wait_for_room(connection)
        connection.in_flight += 1
        @reactor.spawn { work(connection, request) }
      end
    end
  rescue BadFrame => e
    @log.warn("#{name}: #{e.message}; closing")
  rescue SystemCallError => e
    @log.info("#{name}: #{e.message}")
  ensure
    @connections -= 1
    @reactor.close(socket)
  end

  def wait_for_room(connection)
    while connection.in_flight >= MAX_IN_FLIGHT || connection.socket.unsent > MAX_UNSENT
      connection.waiting = Fiber.current
      @reactor.park
      connection.waiting = nil
    end
  end

  def work(connection, request)
    bytes = @service.frame(connection.writer, @service.answer(request))
    connection.socket.write(bytes, WRITE_SECONDS)
  rescue SystemCallError, IOError => e
    # The client is gone or reads no answers. The end of input tells the reader to close.
    @log.info("#{connection.name}: #{e.message}; answer dropped")
    connection.socket.shutdown
  ensure
    connection.in_flight -= 1
    @reactor.wake(connection.waiting) if connection.waiting
  end
end

if $PROGRAM_NAME == __FILE__
  log = Logger.new($stderr)
  server = FiberServer.new(ARGV[0] || "tcp:127.0.0.1:0", log)
  puts "listening on #{server.address}"
  $stdout.flush
  begin
    server.run
  rescue SignalException => e
    log.info("ended by #{e.message}")
  end
end
