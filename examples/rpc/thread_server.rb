# frozen_string_literal: true

# An RPC server with two threads for each connection, one that reads and one that writes, and a pool of threads that do
# the work. These wait for no client.
#
#   ruby -Ilib examples/rpc/thread_server.rb [ADDRESS [IDLE_SECONDS]]
#
# ADDRESS is tcp:127.0.0.1:0 (the kernel chooses the port) unless given, or unix:PATH. The first line of output
# tells where it listens. TERM and INT end it once the requests that were begun are answered, within 2 s.

require "logger"
require_relative "framing"
require_relative "patience"
require_relative "service"
require_relative "sockets"

class ThreadServer
  MAX_PAYLOAD = 1 << 20 # of a request as of an answer; see README.md for what its values take in memory
  MAX_CONNECTIONS = 200
  WORKERS = 8
  SHARE = WORKERS / 2 # requests of one client that are read and not answered; with more, it is not read
  WRITE_SECONDS = 2   # how long a client may leave an answer unread
  IDLE_SECONDS = 60   # how long a client may be silent that waits for no answer
  STOP_SECONDS = 2    # for what was begun, at the end

  # in_progress has an element for each such request. answers are taken by the thread that writes. gone: nothing can be
  # sent any more.
  Client = Struct.new(:socket, :in_progress, :answers, :gone, :reader)

  def initialize(address, log, idle_seconds = IDLE_SECONDS)
    @listener = Sockets.listen(address)
    @log = log
    @idle_seconds = idle_seconds
    @service = Service.new(log) { |seconds| sleep(seconds) }
    @requests = Queue.new # [client, request]; each client's share bounds it
    @clients = []         # touched by the accepting thread alone
  end

  def address
    Sockets.address_of(@listener)
  end

  def run
    workers = Array.new(WORKERS) { Thread.new { work } }
    loop { accept }
  ensure
    @listener.close
    finish(workers.to_a)
  end

  private

  def accept
    socket, = @listener.accept
    @clients.select! { |client| client.reader.alive? }
    if @clients.size >= MAX_CONNECTIONS
      @log.warn("too many connections; closing the newest")
      return socket.close
    end
    client = Client.new(socket, SizedQueue.new(SHARE), Queue.new)
    client.reader = Thread.new { serve(client) }
    @clients << client
  rescue Errno::ECONNABORTED
    nil # gone before it was accepted
  rescue SystemCallError, ThreadError => e
    @log.error(e.message)
    socket.close if socket
    sleep(0.1) # until a connection is closed, when it is for want of descriptors or threads
  end

  # A connection is closed by its reader alone, so that no other thread holds a socket that was closed under it.
  def serve(client)
    name = Sockets.name_of(client.socket)
    Sockets.prepare(client.socket)
    writer = Thread.new { write(client, name) }
    receive(client)
  rescue EOFError
    nil
  rescue BadFrame, Silent => e
    @log.warn("#{name}: #{e.message}; closing")
  rescue SystemCallError => e
    @log.info("#{name}: #{e.message}")
  rescue *Service::FAILURES => e
    @log.error("#{name}: #{e.message} (#{e.class}); closing")
  ensure
    client.answers.push(nil)
    writer.join if writer
    client.gone = true
    client.socket.close
  end

  def receive(client)
    reader = FrameReader.new(MAX_PAYLOAD)
    patience = Patience.new(@idle_seconds)
    loop do
      patience.over(client.in_progress.size) until IO.select([client.socket], nil, nil, patience.left)
      reader.feed(client.socket.readpartial(65_536)) do |request|
        @service.check(request)
        client.in_progress.push(true)
        return if client.gone

        patience.whole_frame
        @requests.push([client, request])
      end
      patience.heard(reader.between_frames?)
    end
  end

  def work
    while (job = @requests.pop)
      client, request = job
      # Of a client that is gone, what was not begun is left undone.
      client.answers.push(client.gone || @service.answer(request))
    end
  end

  # A request counts as the client's until its answer is sent, so that answers nobody reads are bounded too.
  def write(client, name)
    writer = FrameWriter.new(MAX_PAYLOAD)
    while (answer = client.answers.pop)
      begin
        Sockets.write_within(client.socket, @service.frame(writer, answer), WRITE_SECONDS) unless client.gone
      rescue *Service::FAILURES => e
        # The client is gone or reads no answers. The end of input tells the reader to close.
        @log.info("#{name}: #{e.message}; answer dropped")
        client.gone = true
        shutdown(client.socket, :RDWR)
      end
      client.in_progress.pop
    end
  end

  # Workers end with what they have begun, readers with the end of input, writers with what they have.
  def finish(workers)
    deadline = Sockets.now + STOP_SECONDS
    @requests.clear
    workers.each { @requests.push(nil) }
    workers.each { |worker| worker.join([deadline - Sockets.now, 0].max) }
    @clients.each { |client| shutdown(client.socket, :RD) }
    @clients.each { |client| client.reader.join([deadline - Sockets.now, 0].max) }
  end

  def shutdown(socket, directions)
    socket.shutdown(directions)
  rescue SystemCallError, IOError
    nil
  end
end

if $PROGRAM_NAME == __FILE__
  log = Logger.new($stderr)
  server = ThreadServer.new(ARGV[0] || "tcp:127.0.0.1:0", log, Float(ARGV[1] || ThreadServer::IDLE_SECONDS))
  puts "listening on #{server.address}"
  $stdout.flush
  begin
    server.run
  rescue SignalException => e
    log.info("ended by #{e.message}")
  end
end
