# frozen_string_literal: true

# Many fibers on one thread: a fiber that has to wait gives way to the others. This is the least that shows how the
# protocol fits; where Ruby 3's Fiber.scheduler or an event library is at hand, its waits take the place of these.

require "fiber"
require_relative "sockets"

class Reactor
  MAX_SECONDS = 1_000_000_000 # IO.select takes no infinite time

  Wait = Struct.new(:fiber, :io, :write, :deadline)

  def initialize
    @ready = [] # [fiber, what its wait returns]
    @waits = {} # by fiber
  end

  # Runs the block in a fiber of its own, soon. What it raises, #run raises: a server's fibers raise nothing.
  def spawn(&block)
    @ready << [Fiber.new(&block), nil]
  end

  # The same, but runs it at once; returns when it ends or waits for the first time.
  def start(&block)
    Fiber.new(&block).resume
  end

  # Each of these waits returns true when what was waited for came, false when the seconds went by first.
  def wait_readable(io, seconds = nil)
    suspend(io, false, seconds)
  end

  def wait_writable(io, seconds = nil)
    suspend(io, true, seconds)
  end

  # Until another fiber wakes this one.
  def park(seconds = nil)
    suspend(nil, false, seconds)
  end

  def sleep(seconds)
    raise ArgumentError, "no time to sleep: #{seconds}" unless seconds >= 0 # nor is NaN

    suspend(nil, false, seconds)
  end

  # Lets the others have their turn.
  def pass
    @ready << [Fiber.current, nil]
    Fiber.yield
  end

  def wake(fiber)
    @ready << [fiber, true] if @waits.delete(fiber)
  end

  # Closes a socket, for which other fibers may be waiting: their waits end as if time were up.
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

  # How long nothing can happen but input and output.
  def patience(waits)
    return 0 unless @ready.empty?

    first = waits.map(&:deadline).compact.min
    first && [first - Sockets.now, 0].max
  end

  def resume_later(wait, result)
    @ready << [wait.fiber, result] if @waits.delete(wait.fiber)
  end
end
