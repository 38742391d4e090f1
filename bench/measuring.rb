# frozen_string_literal: true

# What a call costs. works is a Hash of procs by name; so are the results.
module Measuring
  MIN_SAMPLE = 4e-3   # seconds
  MIN_COUNTED = 40e-3 # seconds under callgrind; a short call varies with what the allocator is about to do
  MAX_COUNTED = 200   # calls

  module_function

  # Microseconds of CPU time: the best of all rounds, in each of which all works run in turn. Yields each round.
  def times(works, rounds)
    calls = works.map { |work, code| [work, calls_for(&code)] }.to_h
    best = Hash.new(Float::INFINITY)
    rounds.times do |round|
      yield round
      works.each { |work, code| best[work] = [best[work], sample(calls[work], &code)].min }
    end
    best.to_h
  end

  # The collection at the start keeps one codec's garbage out of the next codec's figures.
  def sample(calls, &code)
    GC.start
    start = cpu
    repeat(calls, &code)
    (cpu - start) * 1e6 / calls
  end

  def repeat(calls)
    i = 0
    while i < calls
      yield
      i += 1
    end
  end

  def calls_for(seconds = MIN_SAMPLE)
    start = cpu
    yield
    [(seconds / [cpu - start, 1e-7].max).ceil, 2_000].min
  end

  def cpu
    Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
  end

  # Instructions of a call, without the kernel's, and without garbage collection, which would hit each codec at another
  # time. Only in a process under callgrind that writes to `file`, with bench/callgrind loaded. The first call, which
  # makes room that later calls reuse, does not count.
  def instructions(works, file)
    works.map do |work, code|
      GC.start
      GC.disable
      calls = [calls_for(MIN_COUNTED, &code), MAX_COUNTED].min
      Callgrind.dump { repeat(calls, &code) }
      GC.enable
      dump = Dir["#{file}.*"].fetch(0)
      counted = File.read(dump)[/^totals: (\d+)/, 1].to_i
      File.unlink(dump)
      [work, counted / calls]
    end.to_h
  end
end
