# frozen_string_literal: true

# usage: client.rb PORT FILE (ruby|native)
#
# Sends the records in FILE (written by collect.rb) to the Ruby or C++ server at PORT and compares the answers. Exits 0
# only if every record came back as that kind of server must return it.
require "pp"
require "socket"
require_relative "records"
require_relative "stream"
require_relative "tally"
require_relative "variant_form"

PER_FRAME = [8, 1, 21, 3, 13] # messages

def now
  Process.clock_gettime(Process::CLOCK_MONOTONIC)
end

def message(id, record)
  { "id" => id, "record" => record, "tally" => Tally.of(record) }
end

# The bytes of a frame, 16 per line, next to the lines of its value.
def show(bytes, value)
  hex = bytes.unpack("H*")[0].scan(/../).each_slice(16).map { |line| line.join(" ") }
  text = PP.pp(value, +"", 60).lines.map(&:chomp)
  puts "One frame of #{bytes.bytesize} bytes, header first, and the value in it:", ""
  [hex.size, text.size].max.times { |n| puts format("  %-47s  %s", hex[n], text[n]).rstrip }
  puts
end

# Equality that includes encodings and the order of hashes.
def same?(a, b)
  return false unless a.class == b.class && a == b
  case a
  when String then a.encoding == b.encoding
  when Array then a.zip(b).all? { |members| same?(*members) }
  when Hash then same?(a.to_a, b.to_a)
  else true
  end
end

# Frame sizes and layouts vary.
def batches(messages)
  sizes = PER_FRAME.cycle
  rest = messages
  until rest.empty?
    count = sizes.next
    yield rest.first(count)
    rest = rest.drop(count)
  end
end

class Progress
  def initialize(total)
    @total = total
    @shown = 0
  end

  def at(count)
    step = $stdout.tty? ? 1 : 25
    percent = count * 100 / @total
    return if percent < @shown + step
    @shown = percent
    line = format("  %3d%%  %d of %d records came back unchanged", percent, count, @total)
    $stdout.tty? ? print("\r#{line}") : puts(line)
    puts if $stdout.tty? && count == @total
    $stdout.flush
  end
end

# Compares the answers with the next expected ones.
def compare(expected, answers)
  answers.each do |answer|
    wanted = expected.shift or raise Stream::Failure, "more answers than records"
    next if same?(answer, wanted)
    raise Stream::Failure, "record #{wanted['id']} came back changed:\n  wanted  #{wanted}\n  got     #{answer}"
  end
end

begin
  port, file, server = Integer(ARGV.fetch(0)), ARGV.fetch(1), ARGV.fetch(2)
  records = Records.load(file)
  messages = records.each_with_index.map { |record, id| message(id, record) }
  expected = server == "native" ? VariantForm.of(messages) : messages.dup

  socket = TCPSocket.new("127.0.0.1", port)
  stream = Stream.new(socket, [16_384])
  started = now
  show(stream.send_frame([messages[0]], false), messages[0])

  # Sends and receives concurrently: otherwise both sides could block on full sockets.
  sender = Thread.new do
    batches(messages.drop(1)) { |batch| stream.send_frame(batch, stream.frames_out.odd?) }
    stream.finish
  end
  sender.abort_on_exception = false
  sender.report_on_exception = false if sender.respond_to?(:report_on_exception=)

  progress = Progress.new(messages.size)
  tally = Tally.new
  stream.each_frame do |answers|
    compare(expected, answers)
    answers.each { |answer| tally.add(answer["record"]) }
    progress.at(messages.size - expected.size)
  end
  raise Stream::Failure, "#{expected.size} of #{messages.size} records did not come back" unless expected.empty?
  sender.join
  seconds = now - started

  all = Tally.new
  records.each { |record| all.add(record) }
  raise Stream::Failure, "counted #{all.to_h} and got #{tally.to_h} back" unless tally.to_h == all.to_h

  sent = 2 * messages.size
  bytes = stream.bytes_out + stream.bytes_in
  puts format("Totals: %d messages in %d frames (8-byte and 12-byte headers in turn), %d bytes, in %.2f s",
              sent, stream.frames_out + stream.frames_in, bytes, seconds)
  puts format("        %.0f messages and %.1f MB per second, both directions, with all checking",
              sent / seconds, bytes / seconds / 1e6)
  puts format("        %d values with %d bytes of text, sum %d: the same before and after",
              *tally.to_h.values_at("values", "bytes", "sum"))
rescue Stream::Failure, SystemCallError => e
  abort "client: #{e.message}"
end
