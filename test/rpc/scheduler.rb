# frozen_string_literal: true

# A Fiber scheduler with just what calls need (Ruby 3.1 and newer).
class Scheduler
  def initialize
    @ready = []
    @blocked = {}.compare_by_identity # fibers that wait for others, with their deadlines
    @selecting = {}.compare_by_identity # fibers that wait for IOs: [readable, writable, deadline]
    @lock = Mutex.new # unblock() is called by any thread
    @wake_reader, @wake_writer = IO.pipe
  end

  def fiber(&block)
    Fiber.new(blocking: false, &block).tap(&:resume)
  end

  def io_wait(io, events, timeout)
    readable = [io] if events & IO::READABLE != 0
    writable = [io] if events & IO::WRITABLE != 0
    ready = io_select(readable, writable, nil, timeout)
    return false unless ready
    (ready[0].empty? ? 0 : IO::READABLE) | (ready[1].empty? ? 0 : IO::WRITABLE)
  end

  def io_select(readable, writable, _exceptional, timeout)
    @selecting[Fiber.current] = [readable || [], writable || [], timeout && now + timeout]
    Fiber.yield
  end

  def kernel_sleep(seconds = nil)
    block(:sleep, seconds)
  end

  def block(_blocker, timeout = nil)
    @lock.synchronize { @blocked[Fiber.current] = timeout && now + timeout }
    Fiber.yield
  end

  def unblock(_blocker, fiber)
    @lock.synchronize { @ready << fiber if @blocked.key?(fiber) }
    @wake_writer.write_nonblock(".", exception: false)
  end

  # Runs until no fiber waits.
  def close
    run_once until @ready.empty? && @blocked.empty? && @selecting.empty?
    [@wake_reader, @wake_writer].each(&:close)
  end

  private

  def run_once
    waits = @selecting.values
    readable = waits.flat_map(&:first) << @wake_reader
    readable, writable = IO.select(readable, waits.flat_map { |wait| wait[1] }, [], patience)
    @wake_reader.read_nonblock(100, exception: false)
    resume_ready
    resume_selecting(readable || [], writable || [])
  end

  def patience
    return 0 unless @ready.empty?
    deadline = [*@blocked.values, *@selecting.values.map(&:last)].compact.min
    deadline && [deadline - now, 0].max
  end

  def resume_ready
    fibers = @lock.synchronize do
      late = @blocked.select { |_, deadline| deadline && deadline <= now }.keys
      ready = @ready | late
      @ready = []
      ready.each { |fiber| @blocked.delete(fiber) }
    end
    fibers.each { |fiber| fiber.resume(true) }
  end

  def resume_selecting(readable, writable)
    @selecting.to_a.each do |fiber, (reads, writes, deadline)|
      ready = [reads & readable, writes & writable, []]
      timed_out = deadline && deadline <= now
      next if ready.all?(&:empty?) && !timed_out
      @selecting.delete(fiber)
      fiber.resume(ready.all?(&:empty?) ? nil : ready)
    end
  end

  def now
    Process.clock_gettime(Process::CLOCK_MONOTONIC)
  end
end
