# frozen_string_literal: true

# Many fibers on one thread: a fiber that has to wait lets the others run. This minimal reactor shows how the protocol
# fits; Ruby 3's Fiber.scheduler or an event library can replace it.

require "fiber"
require_relative "sockets"

class Reactor
  NEVER = Float::INFINITY
  LONGEST = 3600 # seconds of one IO.select, which accepts no infinite timeout
  MAX_IDLE = 16

  def initialize
    @ready = {}.compare_by_identity    # fibers to resume, with the results of their waits
    @parked = {}.compare_by_identity   # fibers that wait for others or for a time, with their deadlines
    @blocked = {}.compare_by_identity  # fibers that wait for a socket, with their deadlines
    @reading = {}.compare_by_identity  # those of them that read or write, by socket
    @writing = {}.compare_by_identity
    @next_deadline = NEVER # no wait ends earlier; perhaps that of a wait which is over
    @idle = [] # fibers whose block has ended
  end

  # Runs the block in a fiber, later. An exception in it would end #run, so a server's fibers raise none.
  def spawn(&block)
    @ready[fiber] = block
  end

  # Like spawn, but runs the block at once; returns when it ends or waits for the first time.
  def start(&block)
    fiber.resume(block)
  end

  # Each wait returns true when its condition is met, false when the deadline comes first, a time of Sockets.now. Only
  # one fiber at a time may wait to read from a socket, and one to write to it.
  def wait_readable(socket, deadline = NEVER)
    @reading[socket] = Fiber.current
    suspend(@blocked, deadline)
  end

  def wait_writable(socket, deadline = NEVER)
    @writing[socket] = Fiber.current
    suspend(@blocked, deadline)
  end

  # Waits until another fiber wakes this one.
  def park(deadline = NEVER)
    suspend(@parked, deadline)
  end

  def sleep(seconds)
    raise ArgumentError, "no time to sleep: #{seconds}" unless seconds >= 0 # false for NaN too

    suspend(@parked, Sockets.now + seconds)
  end

  # Lets the other fibers run.
  def pass
    @ready[Fiber.current] = nil
    Fiber.yield
  end

  # Ends the wait of a fiber that is parked.
  def wake(fiber)
    @ready[fiber] = true if @parked.delete(fiber)
  end

  # Closes a socket. The waits of other fibers for it end as if timed out.
  def close(socket)
    [@reading, @writing].each { |sockets| unblock(sockets.delete(socket), false) if sockets.key?(socket) }
    socket.close
  end

  # The number of fibers that wait.
  def waiting
    @parked.size + @blocked.size
  end

  # Returns when no fiber is left.
  def run
    until @ready.empty? && waiting.zero?
      ready = @ready
      @ready = {}.compare_by_identity
      ready.each { |fiber, result| fiber.resume(result) }
      poll unless waiting.zero?
    end
  end

  private

  # A fiber that takes a block. Making one costs more than a short block, so some run one block after the other.
  def fiber
    @idle.pop || Fiber.new do |block|
      while block
        block.call
        block = nil # leaves what it holds to the garbage collector
        if @idle.size < MAX_IDLE
          @idle << Fiber.current
          block = Fiber.yield
        end
      end
    end
  end

  def suspend(waits, deadline)
    waits[Fiber.current] = deadline
    @next_deadline = deadline if deadline < @next_deadline
    Fiber.yield
  end

  def poll
    readable, writable = IO.select(@reading.keys, @writing.keys, nil, patience)
    readable.each { |socket| unblock(@reading.delete(socket), true) } if readable
    writable.each { |socket| unblock(@writing.delete(socket), true) } if writable
    time_out if @next_deadline <= Sockets.now
  end

  # The timeout until the next fiber can run without input or output.
  def patience
    return 0 unless @ready.empty?

    [[@next_deadline - Sockets.now, 0].max, LONGEST].min
  end

  def time_out
    time = Sockets.now
    @parked.select { |_, deadline| deadline <= time }.each_key { |fiber| @ready[fiber] = !@parked.delete(fiber) }
    late = @blocked.select { |_, deadline| deadline <= time }
    late.each_key { |fiber| unblock(fiber, false) }
    [@reading, @writing].each { |sockets| sockets.delete_if { |_, fiber| late.key?(fiber) } }
    @next_deadline = [*@parked.values, *@blocked.values, NEVER].min
  end

  def unblock(fiber, result)
    @blocked.delete(fiber)
    @ready[fiber] = result
  end
end
