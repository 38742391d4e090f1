# frozen_string_literal: true

# Looks at the messages that were put aside, and puts them back or deletes them.
#
#   ruby -Ilib examples/work_queue/dead.rb                      lists them, the oldest first
#   ruby -Ilib examples/work_queue/dead.rb show ENTRY           shows one with its payload
#   ruby -Ilib examples/work_queue/dead.rb put-back ENTRY...    adds them to the queue again, as new messages
#   ruby -Ilib examples/work_queue/dead.rb delete ENTRY...
#
# ENTRY is the first word of a line of the list, or --all: those that are there when it begins. The exit status is 1 if
# one is not there, or was no message.
#
# REDIS_URL and QUEUE as for worker.rb.

require_relative "escape"
require_relative "work_queue"

# Any client of Redis may have written what is shown.
def line(letter)
  "#{letter.entry} was #{Escape.terminal(letter.id)}: #{Escape.terminal(letter.reason)}"
end

def payload(letter)
  return "no payload" unless letter.payload
  Escape.terminal(Payload.decode(letter.payload).inspect)
rescue RuntimeError => e
  "not a value (#{e.message}): #{Escape.terminal(letter.payload.unpack("H*")[0])}"
end

def put_back(queue, entry)
  id = queue.put_back(entry)
  puts "#{entry}: #{id ? "put back as #{id}" : "not there, or no message"}"
  id
end

def delete(queue, entry)
  queue.delete_dead(entry).tap { |deleted| puts "#{entry}: #{deleted ? "deleted" : "not there"}" }
end

def show(queue, entry)
  letter = queue.dead_letter_at(entry)
  puts letter ? "#{line(letter)}\n#{payload(letter)}" : "#{entry}: not there"
  letter
end

def entries(queue, arguments)
  return queue.to_enum(:each_dead_letter).lazy.map(&:entry) if arguments == ["--all"]
  # Redis would take + for the newest, and 1700000000000 for whatever came in that millisecond.
  wrong = arguments.reject { |argument| argument =~ /\A\d+-\d+\z/ }
  abort "no entry: #{wrong.first.inspect}" unless wrong.empty?
  abort "which one? --all for all" if arguments.empty?
  arguments
end

queue = WorkQueue.new(ENV.fetch("REDIS_URL", "redis://127.0.0.1:6379"), ENV.fetch("QUEUE", "jobs"), 0)
action, *arguments = ARGV
case action
when nil then queue.each_dead_letter { |letter| puts line(letter) }
when "show", "put-back", "delete"
  work = method(action.tr("-", "_"))
  # All of them, whatever becomes of the others.
  exit(entries(queue, arguments).map { |entry| work.call(queue, entry) }.to_a.all?)
else abort "show, put-back or delete?"
end
