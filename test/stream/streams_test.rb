# frozen_string_literal: true

require_relative "../ext/helper"
require "support/notation"
require "support/vectors"
require "vorn_rpc/stream"

# The table of streams that both languages must satisfy.
class StreamsTest < Minitest::Test
  include VORN::Stream

  def test_rows
    lines = File.readlines(File.join(Vectors::DIR, "streams.txt"))
    assert_equal lines.map { |line| line[/\A\s*([^#|\s][^|]*?)\s*\|/, 1] }.compact, Vectors.streams.map(&:name)
  end

  # What comes out, in the notation of the table, except that each message counts for itself.
  def outcome(vector, chunks)
    events = []
    report = ->(damage) { events << "#{damage.offset}+#{damage.bytes} #{damage.reason}" } if vector.skip
    decoder = Decoder.new(**vector.options, &report)
    begin
      chunks.each { |chunk| decoder.feed_each(chunk) { |message| events << Notation.of(message) } }
      decoder.finish
    rescue DamagedStream => error
      assert_equal "#{error.offset} of the stream)", error.message[/\d+ of the stream\)\z/]
      events << "#{error.offset}#{error.is_a?(TruncatedStream) ? "?" : "!"} #{error.message}"
    end
    [events, decoder.statistics]
  end

  def expected(vector)
    vector.outcome.flat_map { |event| event.start_with?("<") ? event[1..-2].split(", ") : [event] }
  end

  def check(vector, chunks, message)
    events, statistics = outcome(vector, chunks)
    wanted = expected(vector)
    assert_equal wanted.size, events.size, "#{message}: #{events}"
    wanted.zip(events) do |want, event|
      damage = want =~ /\A\d+[+!?]/
      assert_equal want, damage ? event[0, want.size] : event, message
    end
    return if wanted.any? { |event| event =~ /\A\d+[!?]/ }
    skipped = wanted.map { |event| event[/\A\d+\+(\d+)/, 1] }.compact.map(&:to_i)
    frames = vector.frames
    assert_equal [vector.bytes.bytesize, frames.size, frames.flatten.size, skipped.inject(0, :+), skipped.size],
                 statistics.to_a, message
  end

  Vectors.streams.each do |vector|
    define_method("test_stream #{vector.name}") do
      bytes = vector.bytes
      check(vector, [bytes], "whole")
      check(vector, bytes.each_char.to_a, "byte by byte")
      Vectors.cuts(bytes.bytesize).each do |at|
        check(vector, [bytes.byteslice(0, at), bytes.byteslice(at..-1)], "cut at #{at}")
      end
    end

    define_method("test_written #{vector.name}") do
      next unless vector.written
      decoder = Decoder.new(**vector.options)
      messages = decoder.feed_each(vector.bytes).to_a
      options = { max_length: vector.options[:max_length] }.reject { |_, value| value.nil? }
      encoder = Encoder.new(twelve_byte_header: vector.written == 12, **options)
      written = vector.frames.map { |frame| encoder.frame(*messages.shift(frame.size)) }.join
      assert_equal vector.bytes, written
    end
  end
end
