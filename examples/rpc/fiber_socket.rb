# frozen_string_literal: true

require_relative "reactor"

# Reading and writing that let other fibers run meanwhile.
class FiberSocket
  def initialize(socket, reactor)
    @socket = socket
    @reactor = reactor
    @outgoing = "".b
    @flushing = false
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
  # theirs return at once. Raises Errno::ETIMEDOUT when the peer takes nothing for that many seconds.
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
    @outgoing.bytesize
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
      begin
        @outgoing = @outgoing.byteslice(@socket.write_nonblock(@outgoing)..-1)
      rescue IO::WaitWritable
        raise Errno::ETIMEDOUT, "the peer takes nothing" unless @reactor.wait_writable(@socket, seconds)
      end
    end
  end
end
