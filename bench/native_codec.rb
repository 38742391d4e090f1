#!/usr/bin/env ruby
# frozen_string_literal: true

# Variants against the native peers: runs the codec benchmarks of a built vorn_bench and prints ratios.
#
#   bench/native_codec.rb build/bench/vorn_bench [JSON file to write]
#
# Repetitions of all benchmarks are interleaved; a figure is the best CPU time of the repetitions.

require "json"
require "open3"

program, json_file = ARGV
abort "usage: bench/native_codec.rb PROGRAM [JSON]" unless program
out, status = Open3.capture2(program, "--benchmark_filter=^(en|de)code/", "--benchmark_format=json",
                             "--benchmark_repetitions=9", "--benchmark_min_time=0.05",
                             "--benchmark_enable_random_interleaving=true")
abort "#{program} failed" unless status.success?

runs = JSON.parse(out)["benchmarks"]
failed = runs.select { |r| r["error_occurred"] }
abort failed.map { |r| "#{r['name']}: #{r['error_message']}" }.join("\n") unless failed.empty?
best = runs.select { |r| r["run_type"] == "iteration" }.group_by { |r| r["run_name"] }
           .transform_values { |rs| rs.map { |r| r["cpu_time"] }.min }

figures = {}
%w[encode decode].each do |operation|
  puts format("%-16s %10s %10s %10s   %s", operation, "vorn", "nlohmann", "msgpack", "nlohmann/vorn  msgpack/vorn")
  best.keys.map { |name| name.split("/")[2] }.uniq.each do |document|
    ours, nlohmann, msgpack = %w[vorn nlohmann msgpack].map { |codec| best["#{operation}/#{codec}/#{document}"] }
    puts format("%-16s %10.2f %10.2f %10.2f   %13.2f  %12.2f", document, ours, nlohmann, msgpack,
                nlohmann / ours, msgpack / ours)
    figures["#{operation}/#{document}"] = { "vorn" => ours, "nlohmann" => nlohmann, "msgpack" => msgpack }
  end
end
File.write(json_file, JSON.pretty_generate(figures) << "\n") if json_file
