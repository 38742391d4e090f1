#!/usr/bin/env ruby
# frozen_string_literal: true

# Whole calls: requests and answers between two processes over a UNIX socket, with frames and with what else a Ruby
# program would use.
#
#   bench/calls.rb [--seconds N] [--service REGEXP] [--json FILE] [CLIENTS ...]
#
# Each service echoes a small map, to one client and to 32 (or CLIENTS), all in one process; the next call of a client
# begins when the last is answered. Every answer is checked. All services run in turn, three times; each figure is the
# best of its three.

root = File.expand_path("..", __dir__)
$LOAD_PATH.unshift(File.join(root, "lib"))
require "json"
require "optparse"
require "rbconfig"
require "timeout"
require "tmpdir"
require_relative "call_services"
require_relative "documents"

RUNS = 3
MAX_CALLS = 1_000_000 # of a run

BEST = { "per second" => :max, "client us" => :min, "server us" => :min }.freeze

options = { seconds: 2.0, filter: // }
OptionParser.new do |o|
  o.banner = "usage: bench/calls.rb [options] [CLIENTS ...]"
  o.on("--seconds N", Float, "time of each run (2)") { |n| options[:seconds] = n }
  o.on("--service REGEXP", Regexp, "only services whose name matches") { |r| options[:filter] = r }
  o.on("--json FILE", "write the figures to FILE") { |file| options[:json] = file }
  o.on("--serve", "serve LAYOUT SERVICE at PATH, in this process") { options[:serve] = true }
  o.on("--call", "call LAYOUT SERVICE at PATH from CLIENTS, whose server has PID") { options[:call] = true }
end.parse!

# Seconds of CPU time of this process, or of another: on Linux, its clock is named by its id.
def cpu(pid = nil)
  Process.clock_gettime(pid ? (~pid << 3) | 2 : Process::CLOCK_PROCESS_CPUTIME_ID)
end

def now
  Process.clock_gettime(Process::CLOCK_MONOTONIC)
end

# Calls for some seconds, after a tenth of them to warm up.
def call(service, path, clients, server, seconds)
  calls = 0
  began = start = nil
  finish = now + seconds * 1.1
  warm = now + seconds * 0.1
  service.run(path, clients, Documents.small_request) do
    time = now
    if !began && time >= warm
      calls = 0
      began = time
      start = [cpu, cpu(server)]
    end
    time < finish && (calls += 1) <= MAX_CALLS
  end
  { "calls" => calls, "seconds" => now - began, "client" => cpu - start[0], "server" => cpu(server) - start[1] }
end

def spawn_server(layout, name, path)
  server = Process.spawn(RbConfig.ruby, *$LOAD_PATH.map { |folder| "-I#{folder}" }, __FILE__, "--serve", layout, name,
                         path)
  limit = now + 10
  sleep(0.01) until File.socket?(path) || now > limit
  yield server
ensure
  Process.kill("KILL", server)
  Process.wait(server)
end

# A run in two new processes.
def run(layout, name, clients, seconds)
  Dir.mktmpdir do |folder|
    path = File.join(folder, "socket")
    spawn_server(layout, name, path) do |server|
      client = IO.popen([RbConfig.ruby, *$LOAD_PATH.map { |dir| "-I#{dir}" }, __FILE__, "--call", layout, name, path,
                         clients.to_s, server.to_s, seconds.to_s])
      begin
        run = JSON.parse(Timeout.timeout(seconds + 30) { client.read })
        { "per second" => run["calls"] / run["seconds"], "client us" => run["client"] * 1e6 / run["calls"],
          "server us" => run["server"] * 1e6 / run["calls"] }
      rescue JSON::ParserError
        nil
      ensure
        Process.kill("KILL", client.pid)
        client.close
      end
    end
  end
end

if options[:serve]
  layout, name, path = ARGV
  CallServices::ALL.fetch(layout).fetch(name).serve(path)
  exit
end
if options[:call]
  layout, name, path, clients, server, seconds = ARGV
  service = CallServices::ALL.fetch(layout).fetch(name)
  puts JSON.generate(call(service, path, Integer(clients), Integer(server), Float(seconds)))
  exit
end

counts = ARGV.empty? ? [1, 32] : ARGV.map { |count| Integer(count) }
puts RUBY_DESCRIPTION, "each the best of #{RUNS} runs of #{options[:seconds]} s; CPU time per call in microseconds"
figures = []
counts.each do |count|
  CallServices::ALL.each do |kind, services|
    puts "", format("%-42s %10s %9s %10s %10s  %s", "#{count} clients, #{kind}", "calls/s", "us a call", "client CPU",
                    "server CPU", "of the frames")
    found = services.keys.grep(options[:filter]).reject do |peer|
      missing = CallServices.missing(peer)
      puts "#{missing} is not installed: left out" if missing
      missing
    end
    runs = Array.new(RUNS) { found.map { |peer| run(kind, peer, count, options[:seconds]) } }.transpose
    frames = nil
    found.zip(runs.map(&:compact)) do |peer, done|
      next puts "#{peer}: failed" if done.empty?
      best = BEST.map { |figure, better| [figure, done.map { |run| run[figure] }.send(better)] }.to_h
      frames ||= best["per second"] if peer == "frames"
      puts format("%-42s %10d %9.1f %10.1f %10.1f  %s", peer, best["per second"], 1e6 / best["per second"],
                  best["client us"], best["server us"], frames && format("%.2f", best["per second"] / frames))
      figures << { "clients" => count, "layout" => kind, "service" => peer }.merge(best)
    end
  end
end
if options[:json]
  report = { "ruby" => RUBY_DESCRIPTION, "date" => Time.now.strftime("%Y-%m-%d"), "figures" => figures }
  File.write(options[:json], JSON.pretty_generate(report) << "\n")
end
