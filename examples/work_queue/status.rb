# frozen_string_literal: true

# Prints the counts of the queue, and the buried messages.
#
#   REDIS_URL=redis://:PASSWORD@HOST:6379 ruby -Ilib examples/work_queue/status.rb

require_relative "escape"
require_relative "work_queue"

queue = WorkQueue.new(ENV.fetch("REDIS_URL", "redis://127.0.0.1:6379"), ENV.fetch("QUEUE", "jobs"), 0)
queue.prepare
puts queue.counts.map { |what, number| "#{what} #{number}" }.join(", ")
# Escaped: any client of Redis may have written it, and it goes to a terminal.
queue.dead.each { |id, reason| puts "dead #{Escape.terminal(id)}: #{Escape.terminal(reason)}" }
