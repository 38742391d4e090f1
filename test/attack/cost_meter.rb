# frozen_string_literal: true

# The cost of a piece of work: memory, CPU time, and how long another thread waits for the GVL.
module CostMeter
  Reading = Struct.new(:bytes, :seconds, :waited)

  MEGABYTE = 1 << 20

  class << self
    # The work's result stays alive until the memory has been read.
    def read
      GC.start
      forget_peak
      before = status("VmRSS")
      result = nil
      started = cpu
      waited = longest_wait { result = yield }
      seconds = cpu - started
      peak = status("VmHWM")
      result.nil? # keeps it alive
      Reading.new(peak - before, seconds, waited)
    end

    def status(name)
      File.read("/proc/self/status")[/^#{name}:\s+(\d+) kB/, 1].to_i * 1024
    end

    def cpu
      Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
    end

    private

    # Resets the peak resident size. Where the kernel does not support that, the peak includes the making of the
    # payload.
    def forget_peak
      File.write("/proc/self/clear_refs", "5")
    rescue SystemCallError
      nil
    end

    # The longest time between two turns of a thread that wants one every 2 ms, while the block runs.
    def longest_wait
      longest = 0.0
      running = true
      turn = wall
      clock = Thread.new do
        while running
          longest = [longest, wall - turn].max
          turn = wall
          sleep 0.002
        end
      end
      yield
      [longest, wall - turn].max
    ensure
      running = false
      clock.join if clock
    end

    def wall
      Process.clock_gettime(Process::CLOCK_MONOTONIC)
    end
  end
end
