#!/usr/bin/env ruby
# frozen_string_literal: true

# Variants against the native peers: runs the codec benchmarks of a built vorn_bench and prints ratios.
#
#   bench/native_codec.rb build/bench/vorn_bench [JSON file to write]
#
# Repetitions of all benchmarks are interleaved; a figure is the best CPU time of the repetitions, in microseconds, of
# interning in nanoseconds. "arena" is protobuf's Value in memory that is freed as a whole.

require "json"
require "open3"

OPERATIONS = %w[encode encode_new decode render diff merge intern].freeze
LIBRARIES = %w[vorn nlohmann msgpack protobuf arena flyweight].freeze

program, json_file = ARGV
abort "usage: bench/native_codec.rb PROGRAM [JSON]" unless program
out, status = Open3.capture2(program, "--benchmark_filter=^(#{OPERATIONS.join("|")})/", "--benchmark_format=json",
                             "--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                             "--benchmark_enable_random_interleaving=true")
abort "#{program} failed" unless status.success?

runs = JSON.parse(out)["benchmarks"]
failed = runs.select { |r| r["error_occurred"] }
abort failed.map { |r| "#{r['name']}: #{r['error_message']}" }.join("\n") unless failed.empty?
best = runs.select { |r| r["run_type"] == "iteration" }.group_by { |r| r["run_name"].sub("/real_time", "") }
           .transform_values { |rs| rs.map { |r| r["cpu_time"] }.min }

figures = {}
OPERATIONS.each do |operation|
  rows = Hash.new { |hash, document| hash[document] = {} }
  best.sort.each do |name, time|
    of, library, document = name.split("/", 3)
    rows[document][library] = time if of == operation
  end
  libraries = LIBRARIES & rows.values.flat_map(&:keys)
  peers = libraries.drop(1)
  puts "", format("%-24s", operation) + libraries.map { |name| name.rjust(10) }.join +
           peers.map { |name| "#{name}/vorn".rjust(15) }.join
  rows.each do |document, times|
    puts format("%-24s", document) + libraries.map { |name| format("%10.2f", times.fetch(name)) }.join +
         peers.map { |name| format("%15.2f", times[name] / times["vorn"]) }.join
    figures["#{operation}/#{document}"] = times
  end
end
puts "", "into a new buffer, against a used one"
figures.each do |name, times|
  operation, document = name.split("/", 2)
  next unless operation == "encode_new"
  puts format("%-24s%10.2f", document, times["vorn"] / figures["encode/#{document}"]["vorn"])
end
report = { "date" => Time.now.strftime("%Y-%m-%d"), "figures" => figures }
File.write(json_file, JSON.pretty_generate(report) << "\n") if json_file
