# frozen_string_literal: true

require_relative "test_queue"

# Messages that were put aside: the operator looks at them, puts them back, deletes them.
class DeadTest < QueueTest
  # The output of dead.rb.
  def dead(*arguments, status: 0)
    program = start("work_queue/dead.rb", *arguments, env: environment)
    assert_equal status, program.wait, program.log
    status.zero? ? program.output : program.output + program.log
  end

  # Puts messages aside, and returns their ids among the dead.
  def bury(*values, reason: "tried 5 times")
    values.each { |value| @queue.add(value) }
    @queue.take("me", values.size, 100).each { |message| @queue.bury(message, reason) }
    @queue.to_enum(:each_dead_letter).map(&:entry).last(values.size)
  end

  def redis
    @raw ||= Redis.new(url: @redis.url)
  end

  def test_looking
    start_redis
    assert_empty dead
    entry, other = bury({ "do" => "square", "number" => 4 }, { "do" => "fail" })
    ids = @queue.dead.map(&:first)
    lines = ["#{entry} was #{ids[0]}: tried 5 times\n", "#{other} was #{ids[1]}: tried 5 times\n"]
    assert_equal lines.join, dead
    assert_equal "#{lines[0]}#{{ "do" => "square", "number" => 4 }.inspect}\n", dead("show", entry)
    assert_equal "9-9: not there\n", dead("show", "9-9", status: 1)
    assert_equal 2, @queue.counts[:dead]
  end

  def test_putting_back
    start_redis
    entries = bury(*(0..2).map { |number| { "do" => "square", "number" => number } })
    output = dead("put-back", entries[2], entries[0])
    ids = output.scan(/: put back as (\S+)$/).flatten
    assert_equal "#{entries[2]}: put back as #{ids[0]}\n#{entries[0]}: put back as #{ids[1]}\n", output
    assert_equal({ waiting: 2, pending: 0, done: 0, dead: 1 }, @queue.counts)
    start_worker
    all_done
    assert_equal({ ids[0] => 4, ids[1] => 0 }, @queue.results)
    # It is there once only.
    assert_equal "#{entries[0]}: not there, or no message\n", dead("put-back", entries[0], status: 1)
    assert_equal({ waiting: 0, pending: 0, done: 2, dead: 1 }, @queue.counts)
  end

  def test_deleting
    start_redis
    entries = bury(1, 2, 3)
    assert_equal "#{entries[1]}: deleted\n", dead("delete", entries[1])
    assert_equal [entries[0], entries[2]], @queue.to_enum(:each_dead_letter).map(&:entry)
    # One that is not there leaves the others their turn.
    assert_equal "#{entries[1]}: not there\n#{entries[2]}: deleted\n", dead("delete", entries[1], entries[2], status: 1)
    assert_equal "#{entries[0]}: deleted\n", dead("delete", "--all")
    assert_empty dead("delete", "--all")
    assert_equal({ waiting: 0, pending: 0, done: 0, dead: 0 }, @queue.counts)
  end

  # More than one page of them. What is put aside again meanwhile is not put back again.
  def test_putting_back_all
    start_redis
    bury(*Array.new(230) { |number| number }) # no jobs
    start_worker
    assert_equal 230, dead("put-back", "--all").lines.grep(/put back/).size
    all_done
    assert_equal 230, @queue.counts[:dead]
    assert_equal ["no Hash"], @queue.dead.map(&:last).uniq
  end

  # Two operators with the same list: each message is put back once.
  def test_putting_back_twice_at_once
    start_redis
    bury(*Array.new(100) { |number| { "do" => "square", "number" => number } })
    programs = Array.new(2) { start("work_queue/dead.rb", "put-back", "--all", env: environment) }
    programs.each(&:wait)
    assert_equal 100, programs.map { |program| program.output.scan("put back").size }.inject(:+)
    assert_equal({ waiting: 100, pending: 0, done: 0, dead: 0 }, @queue.counts)
  end

  # + would be the newest, and a number alone all of one millisecond.
  def test_what_is_no_entry
    start_redis
    entry, = bury(1)
    ["+", entry.to_i.to_s, "(#{entry}", "#{entry}\n"].each do |wrong|
      assert_match(/\Ano entry: /, dead("delete", wrong, status: 1))
    end
    assert_match(/\Awhich one\?/, dead("put-back", status: 1))
    assert_match(/\Ashow, put-back or delete\?/, dead("bury", entry, status: 1))
    assert_equal 1, @queue.counts[:dead]
  end

  def test_hostile_entries
    start_redis
    entries = [{ "id" => "\e[2J", "reason" => "\e]0;title\a\u202E\u0085\u2028\xFF" },
               { "other" => "field" },
               { "id" => "1-1", "reason" => "x" * 1_000_000, "p" => "\x0C" },
               { "p" => Payload.encode({ "\e[31m\u202E" => "\n\r\0" }) },
               { "p" => Payload.encode("z" * 1_000_000) }].map { |fields| redis.xadd("jobs:dead", fields) }
    shown = (list = dead) + dead("show", *entries)
    assert shown.valid_encoding?
    refute_match(/[\p{C}\u2028\u2029&&[^\n]]/u, shown)
    assert_operator shown.lines.map(&:bytesize).max, :<, 2000
    assert_equal 5, list.lines.size
    assert_includes shown, "\\u{1B}]0;title\\u{7}\\u{202E}\\u{85}\\u{2028}\\xFF\n"
    assert_includes shown, "not a value (decode_next_packetbuf_rbobj: unrecognized protocol transport type): 0c\n"
    # What has no payload stays where it is.
    assert_equal 2, dead("put-back", "--all", status: 1).scan("no message").size
    assert_equal entries.first(2), @queue.to_enum(:each_dead_letter).map(&:entry)
    assert_equal 3, @queue.counts[:waiting]
  end
end
