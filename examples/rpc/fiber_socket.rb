# frozen_string_literal: true

require_relative "reactor"

# Reads and writes without blocking the other fibers.
class FiberSocket
  def initialize(socket, reactor)
    @socket = socket
    @reactor = reactor
    @outgoing = "".b # not yet taken by the fiber that flushes
    @batch = "".b    # being sent by it
    @chunk = "".b    # the last read bytes
    @flushing = false
  end

  # False: nothing arrived before the deadline. Waiting before each read gives other fibers their turn, however much
  # this peer sends.
  def wait_readable(deadline = Reactor::NEVER)
    @reactor.wait_readable(@socket, deadline)
  end

  # Returns the bytes that have arrived, in a String that the next call uses again; nil at the end of input.
  def read
    while (chunk = @socket.read_nonblock(65_536, @chunk, exception: false)) == :wait_readable
      wait_readable
    end
    chunk
  end

  # Concurrent writes would mix their frames, so the first fiber that has to wait also writes the bytes that others add
  # meanwhile; their calls return at once. Raises Errno::ETIMEDOUT when the peer does not read a batch within `seconds`.
  def write(bytes, seconds)
    return @outgoing << bytes if @flushing

    sent = write_some(bytes)
    flush(bytes.byteslice(sent..-1), seconds) if sent < bytes.bytesize
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

  def flush(rest, seconds)
    @flushing = true
    @batch = rest
    until @batch.empty?
      send_batch(Sockets.now + seconds)
      @batch = @outgoing
      @outgoing = "".b
    end
  ensure
    @flushing = false
  end

  # The deadline is for the whole batch: a peer that reads a byte now and then would move one per write.
  def send_batch(deadline)
    until @batch.empty?
      in_time = Sockets.now < deadline && @reactor.wait_writable(@socket, deadline)
      raise Errno::ETIMEDOUT, "the peer takes nothing" unless in_time

      @batch = @batch.byteslice(write_some(@batch)..-1)
    end
  end

  # Returns how many bytes the kernel took.
  def write_some(bytes)
    sent = @socket.write_nonblock(bytes, exception: false)
    sent == :wait_writable ? 0 : sent
  end
end
