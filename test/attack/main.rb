# frozen_string_literal: true

# See bin/attack --help.

require "optparse"
require_relative "attack"

seed = Random.new_seed % 2**32
ops = 200_000
seconds = nil
level = "normal"
interruptions = false
OptionParser.new do |options|
  options.on("--seed N", Integer) { |n| seed = n }
  options.on("--ops N", Integer) { |n| ops = n }
  options.on("--seconds N", Integer) { |n| seconds = n }
  options.on("--interruptions") { interruptions = true }
  options.on("--gc LEVEL", Attack::Collector::LEVELS) { |name| level = name }
end.parse!

started = Time.now
if interruptions
  require_relative "interruptions"
  run = Interruptions::Run.new(seed).run(ops)
  printf("Ruby %s, seed %d: %d steps of interruption in %.1f s (%s)\n", RUBY_VERSION, seed, run.steps,
         Time.now - started, run.counts)
  exit
end
collector = Attack::Collector.new(level)
performed = skipped = runs = 0
$stdout.sync = true
loop do
  # Printed first, in case the process dies.
  puts "seed #{seed + runs}, #{ops} operations" if seconds
  begin
    comparison = Attack::Comparison.new(seed + runs, collector).run(ops)
  rescue Attack::Difference => difference
    abort difference.message
  end
  performed += comparison.performed
  skipped += comparison.skipped
  runs += 1
  break if seconds.nil? || Time.now - started >= seconds
end
elapsed = Time.now - started
printf("Ruby %s, gc %s, seeds %d to %d: %d operations without a difference (%d not tried: too large) in %.1f s, " \
       "%.1f us each\n",
       RUBY_VERSION, level, seed, seed + runs - 1, performed, skipped, elapsed, elapsed * 1e6 / performed)
