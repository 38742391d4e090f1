# frozen_string_literal: true

require_relative "../ext/helper"
require_relative "../ext/ruby_process"

# A short attack with fixed seeds, and proof that an attack notices a fault. Each runs in a separate process, because
# it patches Array and Hash.
class AttackTest < Minitest::Test
  include RubyProcess

  ATTACK = File.expand_path("attack.rb", __dir__)
  MAIN = File.expand_path("main.rb", __dir__)

  def attack(seed, ops, level = "normal")
    out, err = run_ruby_with_errors("ARGV.replace(%w[--seed #{seed} --ops #{ops} --gc #{level}])\nload #{MAIN.inspect}")
    assert_equal "", err
    assert_match(/ (\d+) operations without a difference/, out)
    assert_operator ops, :<=, out[/ (\d+) operations without a difference/, 1].to_i
  end

  (1..5).each do |seed|
    define_method("test_operations_of_seed_#{seed}") { attack(seed, 30_000) }
  end

  def test_operations_with_a_collection_at_every_allocation
    attack(100, 250, "stress")
  end

  def test_operations_with_compactions
    skip "Ruby #{RUBY_VERSION} does not compact" unless GC.respond_to?(:compact)
    emulated = RUBY_PLATFORM.start_with?("s390x") && !limits_are_kept?
    skip "on an emulated s390x the interpreter cannot unprotect its pages now and then" if emulated
    attack(200, 3_000, "compact")
  end

  def test_every_row_of_costs_with_a_tiny_payload
    skip_without_proc
    skip_under_sanitizers
    costs = File.expand_path("costs.rb", __dir__)
    out, = run_ruby_with_errors("ARGV.replace(%w[--size 3000 --keys 40])\n$0 = #{costs.inspect}\nload #{costs.inspect}")
    rows = out.lines.drop(4)
    assert_operator rows.size, :>=, 30
    rows.each { |row| assert_match(/\A\S.{37} +\d+ +\d+\.\d MiB +\d+\.\d +\d+\.\d+ +\d+\.\d+( \S.*)?\n\z/, row) }
    assert_match(/^empty hashes +3000 /, out)
    # Of 3 MiB; an emulator adds its own memory.
    assert_match(/^header that announces 1024 times this +8 +[2-5]\.\d MiB/, out)
    assert_match(/^symbols: compared .* kept [0-3] of 40$/, out)
    assert_match(/^symbols: Struct.new .* kept 40 of 40$/, out)
  end

  def test_search_for_costs
    costs = File.expand_path("costs.rb", __dir__)
    program = "ARGV.replace(%w[--size 3000 --search 4])\n$0 = #{costs.inspect}\nload #{costs.inspect}"
    out, = run_ruby_with_errors(program)
    # nil; "", [], {}; "a", [nil]; [nil, nil], [""], [[]], [{}], {1=>nil}
    assert_match(/\ARuby [\d.]+, 11 values, each filling 3000 bytes/, out)
    # With so few bytes, measurement noise decides which are the worst.
    worst = out.scan(/^ +\d+\.\d times  (.*)$/).flatten
    assert_equal worst.uniq, worst
    assert_equal 10, worst.size
    assert_empty worst - ["00", "05 00", "0A 0B", "08 09", "05 01 61", "08 81 00 09",
                          "0A 00 0B", "0A 00 00 0B", "0A 05 00 0B", "0A 0A 0B 0B", "0A 08 09 0B"]
  end

  def test_interruptions
    out, = run_ruby_with_errors("ARGV.replace(%w[--seed 7 --ops 2000 --interruptions])\nload #{MAIN.inspect}", "-W0")
    assert_match(/ 2\d\d\d steps of interruption /, out)
    %w[abandon raise throw time_out kill raise_in_thread leave_through change collect].each do |step|
      assert_match(/\b#{step} [1-9]/, out)
    end
  end

  # Faults planted in the model: an attack that does not notice them compares nothing.
  FAULTS = {
    "levels of writing" => "class Model::Encoder; remove_const :MAXDEPTH; MAXDEPTH = 65; end",
    "32 bits of integers" => "class Model::Encoder; def carried(value) value; end; end",
    "pairs of an own each" =>
      "class Model::Encoder; alias plain entry; def entry(pair, depth) plain(pair.reverse, depth); end; end",
    "position after a fault" => "class Model::Decoder; def run; value(1).tap { @buffer.seek(@pos) }; end; end",
    "encoding of strings" => "class Model::Decoder; def symbol; string('BINARY'); end; end",
    "bits of long integers" =>
      "class Model::Decoder; alias plain integer; def integer; n = plain; n >= 2**62 ? n - 1 : n; end; end",
    "gaps before writes" => <<-RUBY,
      class Model::PacketBuf
        alias plain grow_to
        def grow_to(size)
          end_before = @data.bytesize
          plain(size)
          @data.setbyte(end_before, 1) if @pos > end_before
        end
      end
    RUBY
    "classes for copies" => "class Model::PacketFrameIn; def class; Model::PacketBuf; end; end",
    "wrap of the sequence number" =>
      "class Model::PacketFrameOut; def inc_seq; @next_seq += @next_seq < 65535 ? 1 : 0; self; end; end",
    "layout of a header" => "class Model::PacketFrameIn; def header_len; @data.getbyte(1) == 1 ? 8 : 12; end; end",
    "check byte of a header" =>
      "class Model::PacketFrameIn; def stored(index) index == 11 ? 0x5A : @data.getbyte(index) || 0; end; end",
    "position in a header" => "class Model::PacketFrameIn; def seek_payload_start; @pos = header_len; self; end; end"
  }.freeze

  FAULTS.each do |name, fault|
    define_method("test_difference_in_#{name.tr(' ', '_')}") do
      code = <<-RUBY
        require #{ATTACK.inspect}
        #{fault}
        begin
          Attack::Comparison.new(1).run(60_000)
        rescue Attack::Difference => difference
          print difference.message
        end
      RUBY
      out, = run_ruby_with_errors(code)
      assert_match(/\Aseed 1, operation \d+: .*^replay: bin\/attack --seed 1 --ops \d+\z/mn, out.b)
    end
  end
end
