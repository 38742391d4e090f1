# frozen_string_literal: true

# Adds jobs and waits for their results.
#
#   REDIS_URL=redis://:PASSWORD@HOST:6379 ruby -Ilib examples/work_queue/producer.rb [COUNT]
#
# REDIS_URL and QUEUE as for worker.rb.

require_relative "work_queue"

count = Integer(ARGV.fetch(0, 100))
queue = WorkQueue.new(ENV.fetch("REDIS_URL", "redis://127.0.0.1:6379"), ENV.fetch("QUEUE", "jobs"), 0)
queue.prepare
numbers = {} # by message id
count.times { |number| numbers[queue.add({ "do" => "square", "number" => number })] = number }
puts "added #{count}"

results = {}
until (numbers.keys - results.keys - queue.dead.map(&:first)).empty?
  sleep(0.1)
  results = queue.results
end
wrong = numbers.count { |id, number| results[id].to_i != number**2 }
puts "results: #{numbers.count { |id, _| results.key?(id) }}, wrong: #{wrong}"
exit(wrong.zero?)
