# frozen_string_literal: true

require "net/http"
require_relative "escape"
require_relative "test_queue"

class StatusPageTest < QueueTest
  HOSTILE = "<script>alert(1)</script>\"'><img src=x onerror=alert(1)>&amp;\e[2J\0\u202E\xFF".b.freeze
  TAGS = %w[!DOCTYPE html head meta title style body h1 h2 p table tr th td].freeze
  # Lines of Prometheus' text format, version 0.0.4.
  METRIC = /\A(# (HELP|TYPE) [a-z_]+ .+|[a-z_]+\{[a-z_]+="([^"\\\n]|\\[\\"n])*"(,[a-z_]+="[^"\\\n]*")*\} [0-9.]+)\z/

  def start_page(name = "jobs")
    @page = start("work_queue/status_page.rb", "0", env: environment("QUEUE" => name))
    @port = eventually("the page listens", 10, @page) { @page.output[%r{^listening on http://127.0.0.1:(\d+)/$}, 1] }
  end

  def get(path, kind = Net::HTTP::Get)
    Net::HTTP.start("127.0.0.1", @port.to_i, read_timeout: 10) do |http|
      http.request(kind.new(path)).tap { |answer| answer.body.force_encoding("UTF-8") if answer.body }
    end
  end

  # A status is kept for a second.
  def get_later(path)
    sleep(1.05)
    get(path)
  end

  def metrics(text)
    lines = text.lines.map(&:chomp)
    lines.each { |line| assert_match METRIC, line }
    values = lines.reject { |line| line.start_with?("#") }.map { |line| line.split(/ (?=\S+\z)/) }
    values.map { |name, value| [name.sub(/\Avorn_queue_/, ""), value.to_f] }.to_h
  end

  # The cells of the page's tables, by their titles, without the heads.
  def tables(html)
    html.scan(%r{<h2>(.+?)</h2>\n<table>\n(.+?)</table>}m).map do |title, rows|
      [title, rows.lines.drop(1).map { |row| row.scan(%r{<td>(.*?)</td>}).flatten }]
    end.to_h
  end

  def assert_harmless(html)
    assert html.valid_encoding?
    refute_match(/[\p{C}\u2028\u2029&&[^\n]]/u, html)
    assert_empty html.scan(/<\/?([^\s>]+)/).flatten.uniq - TAGS
    refute_match(/<[^>]*(onerror|src)/, html)
  end

  # A queue with messages in every state.
  def test_all_states
    start_redis
    4.times { |number| add(number) }
    done, dead, retried, = @queue.take("first", 4, 100)
    @queue.complete(done, 1)
    @queue.bury(dead, "no Hash")
    sleep(LEASE / 1000.0 + 0.05)
    assert_equal retried.id, @queue.take_over("second").id
    2.times { |number| add(number) }
    start_page
    sleep(0.3)

    page = get("/")
    assert_equal "200", page.code
    assert_equal "text/html; charset=utf-8", page["Content-Type"]
    assert_includes page["Content-Security-Policy"], "default-src 'none'"
    shown = tables(page.body)
    assert_equal %w[2 2 1 1 1], shown["Messages"][0].first(5)
    assert_equal [%w[first 1], %w[second 1]], shown["Workers"].map { |row| row.first(2) }.sort
    assert_equal [[retried.id, "second", "2"]], shown["In work"].select { |row| row[0] == retried.id }
                                                                .map { |row| row.values_at(0, 1, 3) }
    assert_equal 2, shown["In work"].size
    assert_equal [[dead.id, "no Hash"]], shown["Put aside, the newest first"].map { |row| row.drop(1) }
    assert_harmless page.body

    answer = get("/metrics")
    assert_equal "text/plain; version=0.0.4; charset=utf-8", answer["Content-Type"]
    values = metrics(answer.body)
    oldest, longest = %w[oldest_wait longest_held].map { |what| values.delete("#{what}_seconds{queue=\"jobs\"}") }
    assert_includes 0.3..10, oldest
    assert_includes LEASE / 1000.0 + 0.3..20, longest
    states = { "waiting" => 2.0, "pending" => 2.0, "done" => 1.0, "dead" => 1.0 }
    expected = states.map { |state, count| ["messages{queue=\"jobs\",state=\"#{state}\"}", count] }.to_h
    others = { "up" => 1.0, "workers" => 2.0, "retried_messages" => 1.0 }
    assert_equal expected.merge(others.map { |what, count| ["#{what}{queue=\"jobs\"}", count] }.to_h), values

    # An idle queue has no ages.
    Redis.new(url: @redis.url).flushall
    values = metrics(get_later("/metrics").body)
    assert_equal [0.0], values.reject { |what, _| what.start_with?("up") }.values.uniq
    @page.signal("TERM")
    assert_equal 0, @page.wait
  end

  # Anybody who reaches Redis can name a worker and bury a message.
  def test_hostile_contents
    start_redis
    name = "jo\"b\\s\n<b>"
    queue = WorkQueue.new(@redis.url, name, LEASE)
    queue.prepare
    3.times { queue.add(1) }
    queue.take(HOSTILE, 1, 100)
    redis = Redis.new(url: @redis.url)
    redis.xadd("#{name}:dead", { "id" => HOSTILE, "reason" => HOSTILE })
    redis.xadd("#{name}:dead", { "reason" => "<b>" * 1_000_000 })
    redis.xadd("#{name}:dead", { "other" => "field" })
    40.times { redis.xadd("#{name}:dead", { "id" => "1-1", "reason" => "<" * 500 }) }
    300.times { |number| redis.xgroup(:createconsumer, name, WorkQueue::GROUP, "<i>#{number}") }
    start_page(name)
    page = get("/")
    assert_equal "200", page.code
    assert_harmless page.body
    assert_operator page.body.bytesize, :<, 200_000
    assert_includes page.body, "&lt;script&gt;alert(1)&lt;/script&gt;&quot;&#39;&gt;"
    assert_includes page.body, "&amp;amp;\\u{1B}[2J\\u{0}\\u{202E}\\xFF</td>"
    assert_includes page.body, "<p>50 of 301</p>"
    values = metrics(get("/metrics").body)
    assert_equal 301.0, values["workers{queue=\"jo\\\"b\\\\s\\n<b>\"}"]
    assert_operator values.size, :<, 20
  end

  def test_without_redis
    start_redis
    start_page
    assert_equal "200", get("/").code
    @redis.program.stop("KILL")
    page = get_later("/")
    assert_equal "503", page.code
    assert_includes page.body, "No status from Redis: "
    assert_harmless page.body
    assert_equal({ "up{queue=\"jobs\"}" => 0.0 }, metrics(get("/metrics").body))

    @redis.start
    eventually("Redis is back", 10, @redis.program) { get_later("/").code == "200" }

    # It hangs. Who comes next does not wait as long again.
    @redis.program.signal("STOP")
    sleep(1.05)
    began = now
    codes = Array.new(10) { Thread.new { get("/").code } }.map(&:value)
    assert_equal ["503"], codes.uniq
    assert_operator now - began, :<, 5
    @redis.program.signal("CONT")
    eventually("Redis goes on", 10, @redis.program) { get_later("/metrics").body.include?("up{queue=\"jobs\"} 1\n") }
    assert_empty @page.log
  end

  def test_what_it_does_not_answer
    start_redis
    start_page
    assert_equal "404", get("/nothing").code
    assert_equal "404", get("/%3Cb%3E").code
    assert_includes %w[405 501], get("/", Net::HTTP::Delete).code
    assert_equal "200", get("/", Net::HTTP::Head).code
    # It listens on loopback only.
    listening = File.readlines("/proc/net/tcp").map(&:split).map { |fields| fields[1] }
    assert_equal [format("0100007F:%04X", @port.to_i)], listening.grep(/:#{format("%04X", @port.to_i)}\z/).uniq
  end
end
