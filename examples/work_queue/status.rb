# frozen_string_literal: true

# What is in the queue, and what was put aside.
#
#   REDIS_URL=redis://:PASSWORD@HOST:6379 ruby -Ilib examples/work_queue/status.rb

require_relative "work_queue"

queue = WorkQueue.new(ENV.fetch("REDIS_URL", "redis://127.0.0.1:6379"), ENV.fetch("QUEUE", "jobs"), 0)
queue.prepare
puts queue.counts.map { |what, number| "#{what} #{number}" }.join(", ")
# Shown as it would stand in a program: whoever reaches Redis may have written it.
queue.dead.each { |id, reason| puts "dead #{id.inspect[1..-2]}: #{reason.inspect[1..-2]}" }
