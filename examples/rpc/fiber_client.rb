# frozen_string_literal: true

# The RPC client of thread_client.rb for fibers of one reactor. The state needs no locks: another fiber can run only
# where this one waits.
#
#   ruby -Ilib examples/rpc/fiber_client.rb ADDRESS

require "vorn_rpc/stream"
require_relative "answers"
require_relative "fiber_socket"
require_relative "reactor"
require_relative "sockets"

class FiberClient
  include Answers

  MAX_PAYLOAD = 1 << 20 # the server's limit
  MAX_ID = 2**31 - 1    # ids beyond 32 bits cannot be sent
  RETRY_SECONDS = 0.05  # between attempts to connect, doubled each time up to
  MAX_RETRY_SECONDS = 1

  Connection = Struct.new(:socket, :writer, :calls)
  Call = Struct.new(:fiber, :answer, :lost) # lost: why no answer can come

  attr_reader :late # answers that came after their calls had timed out

  def initialize(address, reactor, last_id = 0)
    @address = address
    @reactor = reactor
    @last_id = last_id
    @late = 0
    @connection = nil
  end

  # Returns the result, or raises RemoteError, TimedOut, ConnectionLost, and what the encoder refuses. A call that ends
  # in TimedOut or ConnectionLost may have been executed: retry it only if executing it twice does no harm.
  def call(method, arguments = [], timeout = 5)
    deadline = Sockets.now + timeout
    connection = connected(deadline)
    id = next_id(connection)
    call = connection.calls[id] = Call.new(Fiber.current)
    begin
      write(connection, [id, method, arguments], deadline)
      until call.answer || call.lost
        raise TimedOut, "no answer in time" unless @reactor.park(deadline)
      end
    ensure
      connection.calls.delete(id)
    end
    raise ConnectionLost, call.lost unless call.answer

    result_of(call.answer)
  end

  def close
    @connection.socket.shutdown if @connection
  end

  private

  # Returns the current connection; replaces a lost one.
  def connected(deadline)
    delay = RETRY_SECONDS
    until @connection
      begin
        connect(deadline)
      rescue SystemCallError, SocketError => e
        # Jitter: when a server comes back, its clients must not all reconnect at once.
        pause = delay * (0.5 + rand / 2)
        raise ConnectionLost, "cannot connect: #{e.message}" if Sockets.now + pause > deadline

        @reactor.sleep(pause)
        delay = [delay * 2, MAX_RETRY_SECONDS].min
      end
    end
    @connection
  end

  # Name lookup and connecting block all fibers, so their timeout is short.
  def connect(deadline)
    seconds = [[deadline - Sockets.now, 0.5].min, 0.001].max
    socket = FiberSocket.new(Sockets.connect(@address, seconds), @reactor)
    connection = Connection.new(socket, VORN::Stream::Encoder.new(max_length: MAX_PAYLOAD), {})
    @connection = connection
    @reactor.spawn { read(connection) }
  end

  def next_id(connection)
    begin
      @last_id = @last_id % MAX_ID + 1
    end while connection.calls.key?(@last_id) # after wrapping around, a pending call may still have this id
    @last_id
  end

  def write(connection, request, deadline)
    bytes = connection.writer.frame(request)
    connection.socket.write(bytes, deadline - Sockets.now)
  rescue SystemCallError, IOError => e
    # Part of the frame may have been sent: nothing can follow it.
    connection.socket.shutdown
    raise ConnectionLost, "sending failed: #{e.message}"
  end

  # The fiber that reads from one connection; only this fiber closes the socket.
  def read(connection)
    reader = VORN::Stream::Decoder.new(max_length: MAX_PAYLOAD)
    while connection.socket.wait_readable && (chunk = connection.socket.read)
      reader.feed_each(chunk) { |answer| accept(connection, answer) }
    end
    lose(connection, "the server closed the connection")
  rescue SystemCallError, IOError, VORN::Stream::DamagedStream, BadMessage => e
    lose(connection, e.message)
  end

  def accept(connection, answer)
    call = connection.calls[check_answer(answer)[0]]
    return @late += 1 unless call

    call.answer = answer
    @reactor.wake(call.fiber)
  end

  def lose(connection, reason)
    @connection = nil if connection.equal?(@connection)
    connection.calls.each_value do |call|
      call.lost = reason
      @reactor.wake(call.fiber)
    end
    connection.socket.close
  end
end

if $PROGRAM_NAME == __FILE__
  require_relative "tour"

  reactor = Reactor.new
  reactor.spawn do
    client = FiberClient.new(ARGV.fetch(0), reactor)
    together = lambda do |jobs|
      tour_fiber = Fiber.current
      results = []
      jobs.each do |job|
        reactor.spawn do
          results << job.call
          reactor.wake(tour_fiber)
        end
      end
      reactor.park until results.size == jobs.size
      results
    end
    tour(client, together)
    client.close
  end
  reactor.run
end
