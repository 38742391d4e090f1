# frozen_string_literal: true

require_relative "reactor"

# Reads and writes without blocking the other fibers.
class FiberSocket
  def initialize(socket, reactor)
    @socket = socket
    @reactor = reactor
    @outgoing = "".b # not yet taken by the fiber that flushes
    @batch = "".b    # being sent by it
    @flushing = false
  end

  # False: nothing arrived within `seconds`. Waiting before each read gives other fibers their turn, however much this
  # peer sends.
  def wait_readable(seconds)
    @reactor.wait_readable(@socket, seconds)
  end

  # Returns the bytes that have arrived; nil at the end of input.
  def read
    @socket.read_nonblock(65_536)
  rescue IO::WaitReadable
    @reactor.wait_readable(@socket) ? retry : nil
  rescue EOFError
    nil
  end

  # Concurrent writes would mix their frames, so the first fiber also writes the bytes that others add meanwhile; their
  # calls return at once. Raises Errno::ETIMEDOUT when the peer does not read a batch within `seconds`.
  def write(bytes, seconds)
    @outgoing << bytes
    return if @flushing

    @flushing = true
    begin
      flush(seconds)
    ensure
      @flushing = false
    end
  end

  def unsent
    @outgoing.bytesize + @batch.bytesize
  end

  # Ends the connection for the peer and for the fiber that reads.
  def shutdown
    @socket.shutdown
  rescue SystemCallError, IOError
    nil
  end

  def close
    @reactor.close(@socket)
  end

  private

  def flush(seconds)
    until @outgoing.empty?
      @batch = @outgoing
      @outgoing = "".b
      send_batch(Sockets.now + seconds)
    end
  end

  # The timeout is for the whole batch: a peer that reads a byte now and then would restart one per write.
  def send_batch(deadline)
    until @batch.empty?
      begin
        @batch = @batch.byteslice(@socket.write_nonblock(@batch)..-1)
      rescue IO::WaitWritable
        left = deadline - Sockets.now
        raise Errno::ETIMEDOUT, "the peer takes nothing" unless left > 0 && @reactor.wait_writable(@socket, left)
      end
    end
  end
end
