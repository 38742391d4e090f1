#!/usr/bin/env ruby
# frozen_string_literal: true

# Variants against the native peers: runs the codec benchmarks of a built vorn_bench and prints ratios.
#
#   bench/native_codec.rb build/bench/vorn_bench [JSON file to write]
#
# Repetitions of all benchmarks are interleaved; a figure is the best CPU time of the repetitions.

require "json"
require "open3"

OPERATIONS = %w[encode encode_new decode render diff merge].freeze
PEERS = %w[nlohmann msgpack].freeze

program, json_file = ARGV
abort "usage: bench/native_codec.rb PROGRAM [JSON]" unless program
out, status = Open3.capture2(program, "--benchmark_filter=^(#{OPERATIONS.join("|")})/", "--benchmark_format=json",
                             "--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                             "--benchmark_enable_random_interleaving=true")
abort "#{program} failed" unless status.success?

runs = JSON.parse(out)["benchmarks"]
failed = runs.select { |r| r["error_occurred"] }
abort failed.map { |r| "#{r['name']}: #{r['error_message']}" }.join("\n") unless failed.empty?
best = runs.select { |r| r["run_type"] == "iteration" }.group_by { |r| r["run_name"] }
           .transform_values { |rs| rs.map { |r| r["cpu_time"] }.min }

figures = {}
OPERATIONS.each do |operation|
  puts format("%-18s %10s %10s %10s   %s", operation, "vorn", "nlohmann", "msgpack", "nlohmann/vorn  msgpack/vorn")
  best.keys.grep(%r{\A#{operation}/vorn/}).each do |name|
    document = name.split("/")[2]
    ours = best[name]
    peers = PEERS.map { |peer| [peer, best["#{operation}/#{peer}/#{document}"]] }.to_h
    row = format("%-18s %10.2f", document, ours)
    peers.each_value { |time| row << (time ? format(" %10.2f", time) : " -".rjust(11)) }
    peers.each_value { |time| row << (time ? format("  %13.2f", time / ours) : " -".rjust(15)) }
    puts row
    figures["#{operation}/#{document}"] = { "vorn" => ours }.merge(peers.select { |_, time| time })
  end
end
File.write(json_file, JSON.pretty_generate(figures) << "\n") if json_file
