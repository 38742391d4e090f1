# frozen_string_literal: true

# Passes every row of test/vectors/values.txt from Ruby through C++ to Ruby, and from C++ through Ruby to C++. The bytes
# that either writes need a row of their own, which says what the next reader must read.

require_relative "peer"
require_relative "../support/hex"
require_relative "../support/notation"
require_relative "../support/vectors"

class TableTest < Minitest::Test
  include Peer

  ROWS = Vectors.values
  ROW_OF = ROWS.map { |row| [row.bytes, row] }.to_h
  VARIANT_FAULTS = {
    "!hash_key" => "!VObject::deserialize_hash: only hash keys of type string are supported"
  }.freeze

  # A codec's reading of some bytes: the value, the same with symbols as strings, and the bytes it writes for the
  # value, nil if it reads none.
  Reading = Struct.new(:value, :as_strings, :written)

  def test_ruby_through_cpp
    follow(ruby_hand, cpp_hand, ruby_hand)
  end

  def test_cpp_through_ruby
    follow(cpp_hand, ruby_hand, cpp_hand)
  end

  private

  def ruby_hand
    [->(all) { all.map { |bytes| [bytes, ruby_reads(bytes)] }.to_h }, method(:ruby_expected)]
  end

  def cpp_hand
    [method(:cpp_reads), method(:cpp_expected)]
  end

  def ruby_reads(bytes)
    value, as_strings, written = [true, false].flat_map do |symbols|
      buf = VORN::PROTO::PacketBuf.new.write_raw(bytes).seek_payload_start
      buf.preserve_symbols_on_extract = symbols
      begin
        object = buf.extract_object
        raise "#{buf.pos} bytes read of #{bytes.bytesize}" unless buf.pos == bytes.bytesize
        [Notation.of(object), (VORN::PROTO::PacketBuf.new << object).to_str]
      rescue EncodingError
        ["!symbol_encoding", nil]
      end
    end.values_at(0, 2, 1)
    Reading.new(value, as_strings, written)
  end

  # One peer process reads all rows.
  def cpp_reads(all)
    frame = VORN::PROTO::PacketFrameOut.new
    stream = all.map { |bytes| frame.reset.write_raw(bytes).compute_frame_header.to_str }.join
    described, finished = peer("describe", stream)
    readings = values_of(described).map do |value, as_strings, written|
      Reading.new(value, as_strings, written && written.b)
    end
    raise "C++ answered #{readings.size} of #{all.size}" unless finished && readings.size == all.size
    all.zip(readings).to_h
  end

  def ruby_expected(row)
    Reading.new(row.ruby, row.ruby_as_strings, row.ruby_bytes)
  end

  def cpp_expected(row)
    texts = [row.variant, row.variant_as_strings].map { |text| VARIANT_FAULTS.fetch(text, text) }
    Reading.new(*texts, row.variant_bytes)
  end

  # Passes the bytes of each row from reader to reader: each compares its reading with its column of the table, and
  # writes the value for the next. `hands` are pairs of a reader and its expectation.
  def follow(*hands)
    wrong = []
    passed_on = ROWS.map { |row| [row, row.bytes] }
    hands.each do |readings_of, expected|
      readings = readings_of.call(passed_on.map(&:last).uniq)
      passed_on = passed_on.map do |start, bytes|
        reading = readings.fetch(bytes)
        row = ROW_OF[bytes]
        wrong << "#{start.name}: #{Hex.encode(bytes)} has no row in the table" unless row
        next if row.nil?
        wanted = expected.call(row)
        wrong << "#{start.name}, at #{row.name}:\n  #{reading}\n  #{wanted}" unless reading == wanted
        [start, reading.written] if reading.written
      end.compact
    end
    assert_empty wrong.first(5).map { |text| text[0, 2000] }, "#{wrong.size} of #{ROWS.size} rows"
    refute_empty passed_on
  end
end
