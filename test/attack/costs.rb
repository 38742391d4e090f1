# frozen_string_literal: true

# See bin/attack --help.

require "open3"
require "optparse"
require "rbconfig"

# A table of the costs of hostile bytes. Each row is measured in a separate process.
class Costs
  ROWS = File.expand_path("cost_rows.rb", __dir__)

  # `size`: bytes of a payload. `keys`: keys of the largest hash of colliding keys.
  def initialize(folder, size, keys, only)
    @folder = folder
    @size = size
    @keys = keys
    @only = only
  end

  def run
    puts "Ruby #{RUBY_VERSION}: memory is the peak growth of the resident size; seconds are CPU time; waited is the",
         "longest time for which another thread, which wants the GVL every 2 ms, did not get it", ""
    puts format("%-38s %10s %12s %7s %9s %8s", "what", "bytes", "memory", "times", "seconds", "waited")
    names = ruby("-e", "puts CostRows::ALL.keys", "-r#{ROWS}").lines.map(&:chomp)
    names.grep(@only).each { |name| puts line(name, *ruby(ROWS, name, @size.to_s, @keys.to_s).chomp.split("\t")) }
  end

  private

  def line(name, payload, grown, seconds, waited, note = nil)
    payload = Integer(payload)
    grown = Integer(grown)
    format("%-38s %10d %8.1f MiB %7.1f %9.3f %8.3f %s", name, payload, grown / 1_048_576.0,
           payload.zero? ? 0 : grown.to_f / payload, Float(seconds), Float(waited), note).rstrip
  end

  def ruby(*arguments)
    out, status = Open3.capture2(RbConfig.ruby, "-W", "-I#{@folder}", *arguments)
    status.success? or abort "costs: #{arguments.join(" ")}: #{status}"
    out
  end
end

if $PROGRAM_NAME == __FILE__
  size = 1 << 20
  keys = 8000
  only = //
  longest = nil
  OptionParser.new do |options|
    options.on("--size N", Integer) { |n| size = n }
    options.on("--keys N", Integer) { |n| keys = n }
    options.on("--only PATTERN", Regexp) { |pattern| only = pattern }
    options.on("--search N", Integer) { |n| longest = n }
  end.parse!
  if longest
    require_relative "cost_search"
    CostSearch.new(size).run(longest)
    exit
  end
  Costs.new($LOAD_PATH.first, size, keys, only).run
end
