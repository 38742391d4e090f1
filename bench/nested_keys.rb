#!/usr/bin/env ruby
# frozen_string_literal: true

# What a large Array costs as the key of a key of a key, and what it costs to refuse it.
#
#   bench/nested_keys.rb
#
# 1 MiB of integers and of empty arrays, under the given number of Hashes, each the key or the value of the next; then
# the checking pass alone, with a maxdepth that accepts all of it. Best CPU time of three, in seconds.

$LOAD_PATH.unshift(File.expand_path("../lib", __dir__))
require "vorn_rpc"

SIZE = 1 << 20
MEMBERS = { "integers" => "\x81".b * SIZE, "empty arrays" => "\x0A\x0B".b * (SIZE / 2) }.freeze

def as_key(members, levels)
  "\x08".b * levels + "\x0A".b + members + "\x0B".b + "\x00\x09".b * levels
end

def as_value(members, levels)
  "\x08\x80".b * levels + "\x0A".b + members + "\x0B".b + "\x09".b * levels
end

def buffer(bytes)
  VORN::PROTO::PacketBuf.new.write_raw(bytes)
end

def best
  (0...3).map do
    GC.start
    start = Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
    yield
    Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID) - start
  end.min
end

puts RUBY_DESCRIPTION
puts format("%-14s %7s %9s %9s %9s", "", "levels", "as key", "as value", "checked")
MEMBERS.each do |name, members|
  [1, 6, 60].each do |levels|
    key = buffer(as_key(members, levels))
    value = buffer(as_value(members, levels))
    scratch = VORN::PROTO::PacketBuf.new
    times = [best { key.seek(0).extract_object }, best { value.seek(0).extract_object },
             best { key.seek(0).copy_object(scratch.seek(0)) }]
    puts format("%-14s %7d %9.4f %9.4f %9.4f", name, levels, *times)
  end
end
