#!/usr/bin/env ruby
# frozen_string_literal: true

# How cost grows with the size: the same kind of records at 1 KB, 100 KB, 10 MB and 200 MB of encoded bytes. Each
# size runs in its own process, so that the heap of one size does not slow down the next.
#
#   bench/growth.rb [--floor DIR] [--json FILE] [BYTES ...]
#
# Prints nanoseconds of CPU time per byte, the best of three samples, with the garbage collector on and off. With
# the folder of the built bench/floor extension, also prints the figures for building the same tree without a codec:
# the cost of the interpreter's own heap.

root = File.expand_path("..", __dir__)
$LOAD_PATH.unshift(File.join(root, "lib"))
require "json"
require "optparse"
require "vorn_rpc"
require_relative "documents"

options = { floor: ENV["VORN_FLOOR"] }
OptionParser.new do |o|
  o.banner = "usage: bench/growth.rb [options] [BYTES ...]"
  o.on("--floor DIR", "folder of the built bench/floor extension") { |dir| options[:floor] = File.expand_path(dir) }
  o.on("--json FILE", "write the figures to FILE") { |file| options[:json] = file }
  o.on("--measure BYTES", Integer, "measure one size, in this process") { |bytes| options[:measure] = bytes }
end.parse!
FLOOR = options[:floor]
require File.join(FLOOR, "floor") if FLOOR

def cpu
  Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
end

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
  figures = { "bytes" => size, "encode" => best(calls, &encode) * 1e9 / size,
              "decode" => best(calls, &decode) * 1e9 / size }
  figures["floor"] = best(calls) { Floor.build(records) } * 1e9 / size if FLOOR
  GC.disable
  start = cpu
  [calls, 20].min.times { decode.call }
  figures["decode without collector"] = (cpu - start) / [calls, 20].min * 1e9 / size
  GC.enable
  figures
end

if options[:measure]
  puts JSON.generate(measure(options[:measure]))
  exit
end

sizes = ARGV.empty? ? [1_000, 100_000, 10_000_000, 200_000_000] : ARGV.map { |a| Integer(a) }
rows = sizes.map do |bytes|
  $stderr.print "\r#{bytes} bytes\e[K" if $stderr.tty?
  command = [RbConfig.ruby, __FILE__, "--measure", bytes.to_s]
  command.push("--floor", FLOOR) if FLOOR
  JSON.parse(IO.popen(command, &:read))
end
$stderr.print "\r\e[K" if $stderr.tty?
works = rows[0].keys - ["bytes"]
puts "ns per byte".ljust(18) + works.map { |work| "  #{work}" }.join
rows.each do |row|
  puts format("%12d bytes", row["bytes"]) + works.map { |work| format("  %*.2f", work.size, row[work]) }.join
end
works.each do |work|
  values = rows.map { |row| row[work] }
  puts format("%s: largest / smallest %.2f", work, values.max / values.min)
end
File.write(options[:json], JSON.pretty_generate(rows) << "\n") if options[:json]
