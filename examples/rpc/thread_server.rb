# frozen_string_literal: true

# An RPC server with a thread for each connection and a pool of threads that do the work.
#
#   ruby -Ilib examples/rpc/thread_server.rb [ADDRESS]
#
# ADDRESS is tcp:127.0.0.1:0 (the kernel chooses the port) unless given, or unix:PATH. The first line of output
# tells where it listens. TERM and INT end it once the requests in progress are answered, within 2 s.

require "logger"
require_relative "framing"
require_relative "service"
require_relative "sockets"

class ThreadServer
  MAX_PAYLOAD = 1 << 20 # of a request as of an answer; see README.md for what its values take in memory
  MAX_CONNECTIONS = 200
  WORKERS = 8
  WAITING = 64       # requests read and not yet begun; with more, nothing more is read and the senders feel it
  WRITE_SECONDS = 2  # how long a client may leave its answers unread

  Connection = Struct.new(:socket, :name, :writer, :lock)

  def initialize(address, log)
    @listener = Sockets.listen(address)
    @log = log
    @service = Service.new(log) { |seconds| sleep(seconds) }
    @requests = SizedQueue.new(WAITING)
    @readers = [] # touched by the accepting thread alone
  end

  def address
    Sockets.address_of(@listener)
  end

  def run
    workers = Array.new(WORKERS) { Thread.new { work } }
    loop { accept }
  ensure
    @listener.close
    if workers
      WORKERS.times { @requests.push(nil) }
      workers.each { |worker| worker.join(WRITE_SECONDS) }
    end
  end

  private

  def accept
    socket, = @listener.accept
    @readers.select!(&:alive?)
    if @readers.size >= MAX_CONNECTIONS
      @log.warn("too many connections; closing the newest")
      return socket.close
    end
    @readers << Thread.new { serve(socket) }
  rescue Errno::ECONNABORTED
    nil # gone before it was accepted
  rescue Errno::EMFILE, Errno::ENFILE => e
    @log.error(e.message)
    sleep(0.1) # until a connection is closed
  end

  # A connection is closed by its reader alone, so that no other thread holds a socket that was closed under it.
  def serve(socket)
    name = Sockets.name_of(socket)
    Sockets.prepare(socket)
    connection = Connection.new(socket, name, FrameWriter.new(MAX_PAYLOAD), Mutex.new)
    reader = FrameReader.new(MAX_PAYLOAD)
    loop do
      reader.feed(socket.readpartial(65_536)) do |request|
        @service.check(request)
        @requests.push([connection, request])
      end
    end
  rescue EOFError
    nil
  rescue BadFrame => e
    @log.warn("#{name}: #{e.message}; closing")
  rescue SystemCallError => e
    @log.info("#{name}: #{e.message}")
  ensure
    socket.close
  end

  def work
    while (job = @requests.pop)
      connection, request = job
      begin
        deliver(connection, @service.answer(request))
      rescue SystemCallError, IOError => e
        # The client is gone or reads no answers. The end of input tells the reader to close.
        @log.info("#{connection.name}: #{e.message}; answer dropped")
        shutdown(connection.socket)
      end
    end
  end

  def deliver(connection, answer)
    connection.lock.synchronize do # frames of several workers must not mix
      Sockets.write_within(connection.socket, @service.frame(connection.writer, answer), WRITE_SECONDS)
    end
  end

  def shutdown(socket)
    socket.shutdown
  rescue SystemCallError, IOError
    nil
  end
end

if $PROGRAM_NAME == __FILE__
  log = Logger.new($stderr)
  server = ThreadServer.new(ARGV[0] || "tcp:127.0.0.1:0", log)
  puts "listening on #{server.address}"
  $stdout.flush
  begin
    server.run
  rescue SignalException => e
    log.info("ended by #{e.message}")
  end
end
