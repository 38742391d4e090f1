# frozen_string_literal: true

# Many fibers on one thread: a fiber that has to wait lets the others run. This minimal reactor shows how the protocol
# fits; Ruby 3's Fiber.scheduler or an event library can replace it.

require "fiber"
require_relative "sockets"

class Reactor
  MAX_SECONDS = 1_000_000_000 # IO.select accepts no infinite timeout

  Wait = Struct.new(:fiber, :io, :write, :deadline)

  def initialize
    @ready = [] # [fiber, the result of its wait]
    @waits = {} # by fiber
  end

  # Runs the block in a new fiber, later. An exception in it would end #run, so a server's fibers raise none.
  def spawn(&block)
    @ready << [Fiber.new(&block), nil]
  end

  # Like spawn, but runs the block at once; returns when it ends or waits for the first time.
  def start(&block)
    Fiber.new(&block).resume
  end

  # Each wait returns true when its condition is met, false when the timeout comes first.
  def wait_readable(io, seconds = nil)
    suspend(io, false, seconds)
  end

  def wait_writable(io, seconds = nil)
    suspend(io, true, seconds)
  end

  # Waits until another fiber wakes this one.
  def park(seconds = nil)
    suspend(nil, false, seconds)
  end

  def sleep(seconds)
    raise ArgumentError, "no time to sleep: #{seconds}" unless seconds >= 0 # false for NaN too

    suspend(nil, false, seconds)
  end

  # Lets the other fibers run.
  def pass
    @ready << [Fiber.current, nil]
    Fiber.yield
  end

  def wake(fiber)
    @ready << [fiber, true] if @waits.delete(fiber)
  end

  # Closes a socket. The waits of other fibers for it end as if timed out.
  def close(io)
    @waits.values.each { |wait| resume_later(wait, false) if io.equal?(wait.io) }
    io.close
  end

  # Returns when no fiber is left.
  def run
    until @ready.empty? && @waits.empty?
      ready = @ready
      @ready = []
      ready.each { |fiber, result| fiber.resume(result) }
      poll unless @waits.empty?
    end
  end

  private

  def suspend(io, write, seconds)
    raise ArgumentError, "no time to wait: #{seconds}" unless seconds.nil? || seconds < MAX_SECONDS

    fiber = Fiber.current
    @waits[fiber] = Wait.new(fiber, io, write, seconds && Sockets.now + seconds)
    Fiber.yield
  end

  def poll
    waits = @waits.values
    writing, reading = waits.select(&:io).partition(&:write)
    readable, writable = IO.select(reading.map(&:io).uniq, writing.map(&:io).uniq, nil, patience(waits))
    reading.each { |wait| resume_later(wait, true) if readable.include?(wait.io) } if readable
    writing.each { |wait| resume_later(wait, true) if writable.include?(wait.io) } if writable
    time = Sockets.now
    waits.each { |wait| resume_later(wait, false) if wait.deadline && wait.deadline <= time }
  end

  # The timeout until the next fiber can run without input or output.
  def patience(waits)
    return 0 unless @ready.empty?

    first = waits.map(&:deadline).compact.min
    first && [first - Sockets.now, 0].max
  end

  def resume_later(wait, result)
    @ready << [wait.fiber, result] if @waits.delete(wait.fiber)
  end
end
