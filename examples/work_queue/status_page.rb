# frozen_string_literal: true

# What the queue and its workers are doing: a page for people at /, and numbers for Prometheus at /metrics.
#
#   ruby -Ilib examples/work_queue/status_page.rb [PORT [HOST]]
#
# PORT defaults to 9394; with 0 the kernel chooses, and the first line of output says what. HOST defaults to 127.0.0.1:
# whoever reaches the page sees names of hosts and errors. On TERM and INT it exits.
#
# REDIS_URL and QUEUE as for worker.rb.

require "webrick"
require_relative "escape"
require_relative "work_queue"

# What is shown, read at one time.
class QueueStatus
  ROWS = 50          # of each table
  MOST_HELD = 1000   # pending messages that are looked at

  attr_reader :name, :counts, :oldest_wait, :workers, :held, :dead, :error

  def initialize(queue, name)
    @name = name
    queue.prepare
    @counts = queue.counts
    @oldest_wait = queue.oldest_wait / 1000.0
    @workers = queue.workers.sort_by { |_, pending, idle| [-pending, idle] }
    @held = queue.held(MOST_HELD)
    @dead = queue.dead_letters(ROWS)
  rescue Redis::BaseError => e
    @error = e.message
  end

  def retried
    @held.count { |message| message.deliveries > 1 }
  end

  # Seconds; 0 if none is held.
  def longest_held
    @held.map(&:held).max.to_i / 1000.0
  end
end

# One status for all who ask within a second: many of them cost Redis no more than one does.
class RecentStatus
  SECONDS = 1

  def initialize(queue, name)
    @queue = queue
    @name = name
    @lock = Mutex.new
    @until = nil
  end

  def get
    @lock.synchronize do
      if @until.nil? || now >= @until
        @status = QueueStatus.new(@queue, @name)
        @until = now + SECONDS
      end
      @status
    end
  end

  private

  def now
    Process.clock_gettime(Process::CLOCK_MONOTONIC)
  end
end

# Prometheus' text format. Names of workers are no labels: each process would leave a series of its own.
module Metrics
  TYPE = "text/plain; version=0.0.4; charset=utf-8"

  module_function

  def text(status)
    queue = "queue=\"#{Escape.label(status.name)}\""
    up = metric("up", "Whether Redis answered.", queue => status.error ? 0 : 1)
    return up if status.error
    messages = status.counts.map { |state, count| ["#{queue},state=\"#{state}\"", count] }.to_h
    up +
      metric("messages", "Messages by state; done: results that are kept.", messages) +
      metric("workers", "Workers that the queue knows, ended ones included.", queue => status.workers.size) +
      metric("retried_messages", "Pending messages that were delivered more than once.", queue => status.retried) +
      metric("oldest_wait_seconds", "How long the oldest waiting message has waited.", queue => status.oldest_wait) +
      metric("longest_held_seconds", "Longest time since a pending message was delivered.",
             queue => status.longest_held)
  end

  def metric(name, help, values)
    lines = values.map { |labels, value| "vorn_queue_#{name}{#{labels}} #{value}\n" }
    "# HELP vorn_queue_#{name} #{help}\n# TYPE vorn_queue_#{name} gauge\n#{lines.join}"
  end
end

# The page. Whatever comes from Redis is escaped in #row.
module Page
  STYLE = "body{font-family:sans-serif}td,th{padding:.1em 1em .1em 0;text-align:left;vertical-align:top}"
  # No script runs here, whatever is in the page.
  HEADERS = {
    "Content-Type" => "text/html; charset=utf-8",
    "Content-Security-Policy" => "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'",
    "X-Content-Type-Options" => "nosniff"
  }.freeze

  module_function

  def text(status)
    body = status.error ? "<p>No status from Redis: #{Escape.html(status.error)}</p>\n" : tables(status)
    title = "Queue #{Escape.html(status.name)}"
    "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n" \
      "<meta http-equiv=\"refresh\" content=\"5\">\n<title>#{title}</title>\n<style>#{STYLE}</style>\n</head>\n" \
      "<body>\n<h1>#{title}</h1>\n#{body}</body>\n</html>\n"
  end

  def tables(status)
    rows = QueueStatus::ROWS
    table("Messages", status.counts.keys + ["retried", "oldest waits (s)"],
          [status.counts.values + [status.retried, status.oldest_wait]]) +
      table("Workers", ["name", "messages", "asked last (s ago)"],
            status.workers.first(rows).map { |name, pending, idle| [name, pending, idle / 1000.0] },
            status.workers.size) +
      table("In work", ["message", "worker", "since (s)", "deliveries"],
            status.held.first(rows).map { |one| [one.id, one.worker, one.held / 1000.0, one.deliveries] },
            status.counts[:pending]) +
      table("Put aside, the newest first", ["entry", "message", "reason"],
            status.dead.map { |letter| [letter.entry, letter.id, letter.reason] }, status.counts[:dead])
  end

  def table(title, heads, rows, all = rows.size)
    more = all > rows.size ? "<p>#{rows.size} of #{all}</p>\n" : ""
    "<h2>#{title}</h2>\n<table>\n#{row("th", heads)}#{rows.map { |cells| row("td", cells) }.join}</table>\n#{more}"
  end

  def row(kind, cells)
    "<tr>#{cells.map { |cell| "<#{kind}>#{Escape.html(cell)}</#{kind}>" }.join}</tr>\n"
  end
end

# Answers GET and HEAD.
class StatusPage < WEBrick::HTTPServlet::AbstractServlet
  def initialize(server, recent)
    super(server)
    @recent = recent
  end

  def do_GET(request, response)
    case request.path
    when "/"
      status = @recent.get
      Page::HEADERS.each { |name, value| response[name] = value }
      response.status = 503 if status.error
      response.body = Page.text(status)
    when "/metrics"
      response["Content-Type"] = Metrics::TYPE
      response.body = Metrics.text(@recent.get)
    else raise WEBrick::HTTPStatus::NotFound
    end
  end
end

name = ENV.fetch("QUEUE", "jobs")
queue = WorkQueue.new(ENV.fetch("REDIS_URL", "redis://127.0.0.1:6379"), name, 0, timeout: 2)
server = WEBrick::HTTPServer.new(BindAddress: ARGV.fetch(1, "127.0.0.1"), Port: Integer(ARGV.fetch(0, 9394)),
                                 Logger: WEBrick::Log.new($stderr, WEBrick::Log::WARN), AccessLog: [])
server.mount("/", StatusPage, RecentStatus.new(queue, name))
%w[TERM INT].each { |signal| trap(signal) { server.shutdown } }
address = server.listeners.first.addr
puts "listening on http://#{address[3]}:#{address[1]}/"
$stdout.flush
server.start
