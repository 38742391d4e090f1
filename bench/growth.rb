#!/usr/bin/env ruby
# frozen_string_literal: true

# How cost grows with the work: the same kind of records at 1 KB, 100 KB, 10 MB and 200 MB of encoded bytes. Each
# size runs in a process of its own, so that one size's heap does not burden the next.
#
#   bench/growth.rb [--json FILE] [BYTES ...]
#
# Prints nanoseconds of CPU time per byte, the best of three samples, with the collector as it is, and without it.

root = File.expand_path("..", __dir__)
$LOAD_PATH.unshift(File.join(root, "lib"))
require "json"
require "vorn_rpc"
require_relative "documents"

def cpu
  Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
end

# Seconds a call: the best of at least three samples, small works many times a sample.
def best(calls)
  Array.new(3) do
    GC.start
    start = cpu
    calls.times { yield }
    (cpu - start) / calls
  end.min
end

def measure(bytes)
  per_record = 111
  records = Documents.records(Random.new(7), [bytes / per_record, 1].max)
  buf = VORN::PROTO::PacketBuf.new
  buf << records
  size = buf.pos
  calls = [4_000_000 / size, 1].max
  encode = -> { buf.reset; buf << records }
  decode = -> { buf.pos = 0; buf.extract_object }
  figures = { "bytes" => size, "encode" => best(calls, &encode) * 1e9 / size, "decode" => best(calls, &decode) * 1e9 / size }
  GC.disable
  start = cpu
  [calls, 20].min.times { decode.call }
  figures["decode without collector"] = (cpu - start) / [calls, 20].min * 1e9 / size
  GC.enable
  figures
end

if ARGV[0] == "--measure"
  puts JSON.generate(measure(Integer(ARGV[1])))
  exit
end

json_file = ARGV.shift(2)[1] if ARGV[0] == "--json"
sizes = ARGV.empty? ? [1_000, 100_000, 10_000_000, 200_000_000] : ARGV.map { |a| Integer(a) }
rows = sizes.map do |bytes|
  $stderr.print "\r#{bytes} bytes\e[K" if $stderr.tty?
  JSON.parse(IO.popen([RbConfig.ruby, __FILE__, "--measure", bytes.to_s], &:read))
end
$stderr.print "\r\e[K" if $stderr.tty?
puts "ns per byte          encode    decode    decode without collector"
rows.each { |r| puts format("%12d bytes %8.2f  %8.2f  %8.2f", r["bytes"], r["encode"], r["decode"], r["decode without collector"]) }
["encode", "decode", "decode without collector"].each do |work|
  values = rows.map { |r| r[work] }
  puts format("%s: largest / smallest %.2f", work, values.max / values.min)
end
File.write(json_file, JSON.pretty_generate(rows) << "\n") if json_file
