# frozen_string_literal: true

# Shared by the tests of the examples: programs as child processes, timeouts, and the last line of output.

require "minitest/autorun"
require "rbconfig"
require "timeout"
require "tmpdir"

# The child programs need the same load path.
ENV["RUBYLIB"] ||= File.expand_path("../lib", __dir__)

# The last line that the whole run prints.
class ResultLine < Minitest::StatisticsReporter
  def report
    super
    failed = failures + errors
    io.puts
    io.puts "#{count - failed - skips} passed, #{failed} failed"
  end
end

module Minitest
  def self.plugin_result_line_init(options)
    reporter << ResultLine.new(options[:io], options)
  end
end
Minitest.extensions << "result_line"

# A child process with its output in files. Those still running when the tests end are killed.
class Program
  RUNNING = {} # by pid

  attr_reader :pid, :output_file, :log_file

  # A program of this folder, with warnings on, or one of another language by its full path. through is a command to run
  # it with.
  def self.example(folder, program, *arguments, env: {}, through: [])
    return new(folder, *through, program, *arguments, env: env) if program.start_with?("/")

    new(folder, *through, RbConfig.ruby, "-W", File.join(__dir__, program), *arguments, env: env)
  end

  def initialize(folder, *command, env: {})
    @output_file = File.join(folder, "#{RUNNING.size}-#{rand(1 << 30)}.out")
    @log_file = @output_file.sub(/out\z/, "log")
    @pid = Process.spawn(env, *command, in: File::NULL, out: @output_file, err: @log_file)
    RUNNING[@pid] = self
  end

  def output
    File.read(@output_file)
  end

  def log
    File.read(@log_file)
  end

  def signal(name)
    Process.kill(name, @pid)
  end

  # The exit status, or the number of the signal that ended it.
  def wait(seconds = 20)
    Timeout.timeout(seconds) { Process.wait(@pid) }
    RUNNING.delete(@pid)
    $?.exitstatus || $?.termsig
  end

  def stop(name = "TERM")
    return unless RUNNING.key?(@pid)

    signal(name)
    wait
  end
end

# Also when the tests are interrupted.
Minitest.after_run do
  Program::RUNNING.values.each { |program| program.stop("KILL") }
  FileUtils.rm_rf(ExampleTest::FOLDERS)
end
%w[TERM HUP].each { |name| trap(name) { exit(1) } }

class ExampleTest < Minitest::Test
  STEP_SECONDS = 30
  FOLDERS = []

  def setup
    @folder = Dir.mktmpdir("vorn-examples")
    FOLDERS << @folder
    @programs = []
  end

  def teardown
    @programs.each do |program|
      program.stop("KILL")
      # Ruby's own files and other gems may warn; ours must not.
      assert_empty program.log.lines.grep(%r{examples/.*warning:}), "warnings of a program"
    end
  ensure
    FileUtils.remove_entry(@folder)
    FOLDERS.delete(@folder)
  end

  def start(program, *arguments, **options)
    @programs << Program.example(@folder, program, *arguments, **options)
    @programs.last
  end

  # Starts a server and returns it with its address, which it prints.
  def serve(server, address = "tcp:127.0.0.1:0", *arguments)
    program = start(server, address, *arguments)
    [program, eventually("#{server} listens", 10, program) { program.output[/^listening on (.+)\n/, 1] }]
  end

  # Waits until the block returns a true value. On timeout the message includes the program's log.
  def eventually(what, seconds = 10, program = nil)
    limit = now + seconds
    until (result = yield)
      flunk("not in #{seconds} s: #{what}#{"\n#{program.log}" if program}") if now > limit
      sleep(0.01)
    end
    result
  end

  def now
    Process.clock_gettime(Process::CLOCK_MONOTONIC)
  end

  def within(seconds = STEP_SECONDS, &block)
    Timeout.timeout(seconds, &block)
  end
end
