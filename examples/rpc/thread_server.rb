# frozen_string_literal: true

# An RPC server with a reading and a writing thread for each connection, and a pool of worker threads, which never wait
# for a client.
#
#   ruby -Ilib examples/rpc/thread_server.rb [ADDRESS [IDLE_SECONDS]]
#
# ADDRESS defaults to tcp:127.0.0.1:0 (the kernel chooses the port), or is unix:PATH. The first line of output is the
# address. On TERM and INT it answers the requests that were begun, for up to 2 s, and exits.

require "logger"
require "vorn_rpc/stream"
require_relative "patience"
require_relative "service"
require_relative "sockets"

class ThreadServer
  MAX_PAYLOAD = 1 << 20 # of requests and answers; decoded values take more, see README.md
  MAX_CONNECTIONS = 200
  WORKERS = 8
  SHARE = WORKERS / 2 # unanswered requests of one client; beyond that, the server stops reading from it
  WRITE_SECONDS = 2   # how long a client may leave an answer unread
  IDLE_SECONDS = 60   # how long a client that waits for no answer may be silent
  STOP_SECONDS = 2    # timeout for the requests that were begun, at the end

  # in_progress has one element per unanswered request. The writing thread takes from answers. gone: nothing can be sent
  # any more.
  Client = Struct.new(:socket, :in_progress, :answers, :gone, :reader)

  def initialize(address, log, idle_seconds = IDLE_SECONDS)
    @listener = Sockets.listen(address)
    @log = log
    @idle_seconds = idle_seconds
    @service = Service.new(log) { |seconds| sleep(seconds) }
    @requests = Queue.new # [client, request]; the clients' shares bound it
    @clients = []         # used only by the accepting thread
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
    nil # disconnected before it was accepted
  rescue SystemCallError, ThreadError => e
    @log.error(e.message)
    socket.close if socket
    sleep(0.1) # until a connection closes, in case descriptors or threads ran out
  end

  # Only its reading thread closes a connection, so that no other thread uses a closed socket.
  def serve(client)
    name = Sockets.name_of(client.socket)
    Sockets.prepare(client.socket)
    writer = Thread.new { write(client, name) }
    receive(client)
  rescue EOFError
    nil
  rescue VORN::Stream::DamagedStream, BadMessage, Silent => e
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
    reader = VORN::Stream::Decoder.new(max_length: MAX_PAYLOAD)
    patience = Patience.new(@idle_seconds)
    loop do
      patience.over(client.in_progress.size) until IO.select([client.socket], nil, nil, patience.left)
      reader.feed_each(client.socket.readpartial(65_536)) do |request|
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
      # Requests of a client that has disconnected are skipped.
      client.answers.push(client.gone || @service.answer(request))
    end
  end

  # A request counts towards the client's share until its answer is sent, so that unread answers are bounded too.
  def write(client, name)
    writer = VORN::Stream::Encoder.new(max_length: MAX_PAYLOAD)
    while (answer = client.answers.pop)
      begin
        Sockets.write_within(client.socket, @service.frame(writer, answer), WRITE_SECONDS) unless client.gone
      rescue *Service::FAILURES => e
        # The client has disconnected or reads no answers. Shutting the socket down makes the reading thread close it.
        @log.info("#{name}: #{e.message}; answer dropped")
        client.gone = true
        shutdown(client.socket, :RDWR)
      end
      client.in_progress.pop
    end
  end

  # Workers finish the requests they have begun, readers stop at the end of input, writers send the answers they have.
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
