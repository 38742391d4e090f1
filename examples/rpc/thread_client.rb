# frozen_string_literal: true

# An RPC client that many threads may share. Each call is one request; answers are matched by id, so calls of
# several threads are in flight at once. Run it against a server to see what it does:
#
#   ruby -Ilib examples/rpc/thread_client.rb ADDRESS

require "vorn_rpc/stream"
require_relative "answers"
require_relative "sockets"

class ThreadClient
  include Answers

  MAX_PAYLOAD = 1 << 20 # the server's limit
  MAX_ID = 2**31 - 1    # ids beyond 32 bits cannot be sent
  RETRY_SECONDS = 0.05  # between attempts to connect, doubled each time up to
  MAX_RETRY_SECONDS = 1

  Connection = Struct.new(:socket, :writer, :lock, :calls)
  Call = Struct.new(:arrived, :answer, :lost) # lost: why no answer can come

  attr_reader :late # answers that came after their calls had timed out

  def initialize(address, last_id = 0)
    @address = address
    @last_id = last_id
    @late = 0
    @connection = nil
    @lock = Mutex.new       # guards the state; never held while reading or writing
    @connecting = Mutex.new # one thread connects while the others wait for it
  end

  # Returns the result, or raises RemoteError, TimedOut, ConnectionLost, and what the encoder refuses. A call that ends
  # in TimedOut or ConnectionLost may have been executed: retry it only if executing it twice does no harm.
  def call(method, arguments = [], timeout = 5)
    deadline = Sockets.now + timeout
    connection = connected(deadline)
    id, call = register(connection)
    begin
      write(connection, [id, method, arguments], deadline)
      wait(call, deadline)
    ensure
      @lock.synchronize { connection.calls.delete(id) }
    end
    raise ConnectionLost, call.lost unless call.answer

    result_of(call.answer)
  end

  def close
    @lock.synchronize { @connection && shutdown(@connection) }
  end

  private

  # Returns the current connection; replaces a lost one.
  def connected(deadline)
    @connecting.synchronize do
      current = @lock.synchronize { @connection }
      next current if current

      connection = connect(deadline)
      @lock.synchronize { @connection = connection }
      Thread.new { read(connection) }
      connection
    end
  end

  def connect(deadline)
    delay = RETRY_SECONDS
    begin
      socket = Sockets.connect(@address, [deadline - Sockets.now, 0.001].max)
      Connection.new(socket, VORN::Stream::Encoder.new(max_length: MAX_PAYLOAD), Mutex.new, {})
    rescue SystemCallError, SocketError => e
      # Jitter: when a server comes back, its clients must not all reconnect at once.
      pause = delay * (0.5 + rand / 2)
      raise ConnectionLost, "cannot connect: #{e.message}" if Sockets.now + pause > deadline

      sleep(pause)
      delay = [delay * 2, MAX_RETRY_SECONDS].min
      retry
    end
  end

  def register(connection)
    @lock.synchronize do
      raise ConnectionLost, "the connection was lost" unless connection.equal?(@connection)

      begin
        @last_id = @last_id % MAX_ID + 1
      end while connection.calls.key?(@last_id) # after wrapping around, a pending call may still have this id
      [@last_id, connection.calls[@last_id] = Call.new(ConditionVariable.new)]
    end
  end

  def write(connection, request, deadline)
    connection.lock.synchronize do
      bytes = connection.writer.frame(request)
      begin
        Sockets.write_within(connection.socket, bytes, deadline - Sockets.now)
      rescue SystemCallError, IOError => e
        # Part of the frame may have been sent: nothing can follow it.
        shutdown(connection)
        raise ConnectionLost, "sending failed: #{e.message}"
      end
    end
  end

  def wait(call, deadline)
    @lock.synchronize do
      until call.answer || call.lost
        left = deadline - Sockets.now
        raise TimedOut, "no answer in time" if left <= 0

        call.arrived.wait(@lock, left)
      end
    end
  end

  # The thread that reads from one connection; only this thread closes the socket.
  def read(connection)
    reader = VORN::Stream::Decoder.new(max_length: MAX_PAYLOAD)
    loop do
      reader.feed_each(connection.socket.readpartial(65_536)) { |answer| accept(connection, answer) }
    end
  rescue EOFError
    lose(connection, "the server closed the connection")
  rescue SystemCallError, IOError, VORN::Stream::DamagedStream, BadMessage => e
    lose(connection, e.message)
  end

  def accept(connection, answer)
    id = check_answer(answer)[0]
    @lock.synchronize do
      call = connection.calls[id]
      next @late += 1 unless call

      call.answer = answer
      call.arrived.signal
    end
  end

  def lose(connection, reason)
    @lock.synchronize do
      @connection = nil if connection.equal?(@connection)
      connection.calls.each_value do |call|
        call.lost = reason
        call.arrived.signal
      end
    end
    connection.socket.close
  end

  # Gives the reading thread the end of input.
  def shutdown(connection)
    connection.socket.shutdown
  rescue SystemCallError, IOError
    nil
  end
end

if $PROGRAM_NAME == __FILE__
  require_relative "tour"

  client = ThreadClient.new(ARGV.fetch(0))
  tour(client, ->(jobs) { jobs.map { |job| Thread.new(&job) }.map(&:value) })
  client.close
end
