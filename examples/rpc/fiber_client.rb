# frozen_string_literal: true

# The RPC client of thread_client.rb for fibers of one reactor. The state needs no locks: another fiber can run only
# where this one waits.
#
#   ruby -Ilib examples/rpc/fiber_client.rb ADDRESS

require_relative "answers"
require_relative "fiber_socket"
require_relative "framing"
require_relative "reactor"
require_relative "sockets"

class FiberClient
  include Answers

  MAX_PAYLOAD = 1 << 20 # the server's limit
  MAX_ID = 2**31 - 1    # ids beyond 32 bits would be cut; see FrameWriter#frame
  RETRY_SECONDS = 0.05  # between attempts to connect, doubled each time up to
  MAX_RETRY_SECONDS = 1

  Connection = Struct.new(:socket, :writer, :calls)
  Call = Struct.new(:fiber, :done, :error, :result)

  attr_reader :late # answers that came after their calls had timed out

  def initialize(address, reactor, last_id = 0)
    @address = address
    @reactor = reactor
    @last_id = last_id
    @late = 0
    @connection = nil
  end

  # Returns the result, or raises RemoteError, TimedOut, ConnectionLost, MessageTooLarge. A call that ends in TimedOut
  # or ConnectionLost may have been executed: retry it only if executing it twice does no harm.
  def call(method, arguments = [], timeout = 5)
    deadline = Sockets.now + timeout
    connection = connected(deadline)
    id = next_id(connection)
    call = connection.calls[id] = Call.new(Fiber.current)
    begin
      write(connection, [id, method, arguments], deadline)
      until call.done
        left = deadline - Sockets.now
        raise TimedOut, "no answer in time" if left <= 0

        @reactor.park(left)
      end
    ensure
      connection.calls.delete(id)
    end
    raise call.error if call.error

    call.result
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
    connection = Connection.new(socket, FrameWriter.new(MAX_PAYLOAD), {})
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
    reader = FrameReader.new(MAX_PAYLOAD)
    while (chunk = connection.socket.read)
      reader.feed(chunk) { |answer| accept(connection, answer) }
    end
    lose(connection, "the server closed the connection")
  rescue SystemCallError, IOError, BadFrame => e
    lose(connection, e.message)
  end

  def accept(connection, answer)
    id, error, result = check_answer(answer)
    call = connection.calls[id]
    return @late += 1 unless call

    finish(call, error && RemoteError.new(*error), result)
  end

  def lose(connection, reason)
    @connection = nil if connection.equal?(@connection)
    connection.calls.each_value { |call| finish(call, ConnectionLost.new(reason), nil) unless call.done }
    connection.socket.close
  end

  def finish(call, error, result)
    call.error = error
    call.result = result
    call.done = true
    @reactor.wake(call.fiber)
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
