# frozen_string_literal: true

require_relative "reactor"

# Reading and writing that let other fibers run meanwhile.
class FiberSocket
  def initialize(socket, reactor)
    @socket = socket
    @reactor = reactor
    @outgoing = "".b # what the fiber that flushes has not begun
    @batch = "".b    # what it is sending
    @flushing = false
  end

  # False: nothing came in that many seconds. Waiting before each read lets the others have their turn, however much
  # this peer sends.
  def wait_readable(seconds)
    @reactor.wait_readable(@socket, seconds)
  end

  # What has arrived; nil at the end of input.
  def read
    @socket.read_nonblock(65_536)
  rescue IO::WaitReadable
    @reactor.wait_readable(@socket) ? retry : nil
  rescue EOFError
    nil
  end

  # Two fibers that wrote at once would mix their frames, so the first one also writes what others bring meanwhile;
  # theirs return at once. Raises Errno::ETIMEDOUT when the peer does not take what there is in that many seconds.
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

  # Tells the peer, and the fiber that reads, that this is the end.
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

  # A limit for the whole, since a peer that takes a byte now and then never takes nothing.
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
