# What the tests of the command-line tools share: groups of checks, which go on after a failure and count themselves, since
# one run of a tool answers many questions.

class CheckSuite
  # `dir` is an empty folder, for the suite's own files.
  def initialize(dir)
    @dir = dir
    @passed = @failed = 0
  end

  # The groups: the methods that begin with test_, in the order in which they are written.
  def groups
    names = self.class.instance_methods(false).grep(/\Atest_/)
    names.sort_by { |name| method(name).source_location.last }.map(&:to_s)
  end

  # Runs the groups of these names, without any those of `default`. Whether all is well.
  def run(names, default = groups)
    unknown = names - groups
    abort "no test #{unknown.join(', ')} (there are #{groups.join(', ')})" unless unknown.empty?
    (names.empty? ? default : names).each { |name| run_group(name) }
    puts "#{@passed} passed, #{@failed} failed"
    @failed == 0 && @passed > 0
  end

  private

  def run_group(name)
    before = [@passed, @failed]
    started = Process.clock_gettime(Process::CLOCK_MONOTONIC)
    send(name)
    puts format('%-28s %5d passed, %d failed (%.1f s)', name, @passed - before[0], @failed - before[1],
                Process.clock_gettime(Process::CLOCK_MONOTONIC) - started)
  rescue StandardError => error
    @failed += 1
    puts "#{name}: #{error.class}: #{error.message}", error.backtrace.first(5)
  end

  def check(what, expected, actual)
    return @passed += 1 if expected == actual
    @failed += 1
    puts "FAILED #{what[0, 500]}", "  expected #{expected.inspect[0, 1000]}", "  got      #{actual.inspect[0, 1000]}"
  end

  def path(name)
    File.join(@dir, name)
  end
end
