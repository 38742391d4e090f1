# frozen_string_literal: true

# A long run of calls: eight threads, each two of which share a client, call a server in another process over a UNIX
# socket. With --cut, connections are ended at random moments. The exit status is 1 unless each call is answered rightly
# or reported lost, and none is executed twice; and unless both processes end with the threads and the descriptors that
# they had at first, and their memory does not grow after the first tenth. bin/test soak runs it.

require "optparse"
require "socket"
require "tmpdir"
require "vorn_rpc/rpc"

options = { calls: 10_000_000, cut: 0, every: 100_000 }
OptionParser.new do |o|
  o.banner = "usage: bin/test soak --calls N [options]"
  o.on("--calls N", Integer, "calls (10,000,000)") { |n| options[:calls] = n }
  o.on("--cut N", Integer, "end a connection before or during one of N calls (0: never)") { |n| options[:cut] = n }
  o.on("--every N", Integer, "calls between two looks at memory (100,000)") { |n| options[:every] = n }
  o.on("--seconds N", Float, "begin no round of calls after this time") { |n| options[:seconds] = n }
end.parse!

THREADS = 8
TOLERANCE = 8.0 # MB: the normal fluctuation of the allocator and the interpreter's heap

# The server, which counts how often each call is executed.
class Counted
  def initialize(path, calls)
    @executed = "0".b * calls # zero bytes would take their memory only when they are written
    @lock = Mutex.new
    @server = VORN::RPC::Server.new("unix:#{path}", methods_by_name, max_in_progress: 4, logger: Logger.new(IO::NULL))
  end

  def run
    trap("TERM") { @server.stop }
    @server.run
  end

  private

  def methods_by_name
    { "echo" => method(:echo),
      "executed" => ->(number) { @executed.getbyte(number) - "0".ord },
      "once" => -> { @executed.count("1") },
      "often" => -> { @executed.count("^01") },
      "collect" => -> { GC.start } }
  end

  def echo(number, text)
    @lock.synchronize { @executed.setbyte(number, @executed.getbyte(number) + 1) }
    [number, text]
  end
end

# A client whose connections can be ended from outside.
class CutClient
  def initialize(path)
    @client = VORN::RPC::Client.new(->(_) { @io = UNIXSocket.new(path) }, timeout: 20)
  end

  def call(*arguments)
    @client.call(*arguments)
  end

  def cut
    @io.shutdown if @io
  rescue IOError, SystemCallError
    nil # ended already
  end

  def close
    @client.close
  end
end

# What a process holds.
Held = Struct.new(:threads, :descriptors, :megabytes) do
  def self.by(pid)
    status = File.read("/proc/#{pid}/status")
    threads, resident = [/^Threads:\s+(\d+)/, /^VmRSS:\s+(\d+)/].map { |line| status[line, 1].to_i }
    new(threads, Dir.entries("/proc/#{pid}/fd").size, resident / 1024.0)
  end
end

class Caller
  def initialize(number, client, cut)
    @client = client
    @cut = cut
    @random = Random.new(number)
  end

  # Makes these calls, and returns which were lost.
  def run(numbers)
    numbers.select do |number|
      cutter = (cut if @cut > 0 && @random.rand(@cut).zero?)
      begin
        text = "x" * @random.rand(200)
        @client.call("echo", number, text) == [number, text] or abort "a wrong answer"
        false
      rescue VORN::RPC::ConnectionLost
        true
      ensure
        cutter.join if cutter
      end
    end
  end

  private

  # Before the call, or at some moment of it.
  def cut
    delay = [0, @random.rand * 0.001][@random.rand(2)]
    return @client.cut && nil if delay.zero?
    Thread.new { sleep(delay); @client.cut }
  end
end

def now
  Process.clock_gettime(Process::CLOCK_MONOTONIC)
end

folder = Dir.mktmpdir("vorn-soak")
path = File.join(folder, "socket")
server = fork { Counted.new(path, options[:calls]).run }
at_exit do
  if server
    Process.kill("KILL", server)
    Process.wait(server)
  end
  FileUtils.remove_entry(folder)
end
trap("TERM") { exit(1) }
deadline = now + 10
sleep(0.01) until File.socket?(path) || now > deadline
control = VORN::RPC::Client.new("unix:#{path}", timeout: 60)
control.call("collect")
Thread.new { nil }.join # Ruby keeps what its first thread needed
before = [Process.pid, server].map { |pid| Held.by(pid) }

clients = Array.new(THREADS / 2) { CutClient.new(path) }
callers = Array.new(THREADS) { |number| Caller.new(number, clients[number / 2], options[:cut]) }
done = 0
lost = []
readings = []
began = now
while done < options[:calls] && !(options[:seconds] && now - began > options[:seconds])
  count = [options[:every], options[:calls] - done].min
  threads = callers.each_with_index.map do |caller, number|
    mine = (done + number).step(done + count - 1, THREADS)
    Thread.new { caller.run(mine) }
  end
  threads.each { |thread| thread.abort_on_exception = true }
  lost.concat(threads.flat_map(&:value))
  done += count
  GC.start
  control.call("collect")
  readings << [Process.pid, server].map { |pid| Held.by(pid).megabytes }
  puts format("%d calls, %.0f s: client %.1f MB, server %.1f MB", done, now - began, *readings.last)
  $stdout.flush
end
clients.each(&:close)

problems = []
# What was lost may still be executed, and what has ended may still be closed.
deadline = now + 10
begin
  sleep(0.1)
  executed = lost.count { |number| control.call("executed", number) > 0 }
  answered = control.call("once") - executed
  after = [Process.pid, server].map { |pid| Held.by(pid) }
  held = [before, after].map { |both| both.flat_map { |one| [one.threads, one.descriptors] } }
  left = held.transpose.any? { |first, last| last > first }
end until (answered == done - lost.size && !left) || now > deadline
puts "#{done} calls: #{answered} answered, #{lost.size} lost, of which #{executed} executed"
problems << "#{done} calls, but #{answered} answered and #{lost.size} lost" unless answered == done - lost.size
often = control.call("often")
problems << "#{often} calls were executed more than once" unless often.zero?
problems << "threads and descriptors of client and server: #{held.map { |one| one.join(" ") }.join(", then ")}" if left
flat = readings.drop((readings.size / 10.0).ceil - 1).transpose.all? { |side| side.max - side.first <= TOLERANCE }
problems << "memory grew" unless flat
problems << "no call was lost" if options[:cut] > 0 && lost.empty?
control.close
abort problems.join("; ") unless problems.empty?
