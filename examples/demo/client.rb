# usage: client.rb PORT COUNT
#
# Sends COUNT records of this machine to the server at PORT and compares what comes back. Exits 0 only when every
# record came back unchanged.
require "pp"
require "socket"
require_relative "records"
require_relative "stream"
require_relative "tally"

PER_FRAME = [8, 1, 21, 3, 13] # messages

def now
  Process.clock_gettime(Process::CLOCK_MONOTONIC)
end

def message(id, record)
  { "id" => id, "record" => record, "tally" => Tally.of(record) }
end

# The bytes of a frame, 16 a line, beside the lines of its value.
def show(bytes, value)
  hex = bytes.unpack("H*")[0].scan(/../).each_slice(16).map { |line| line.join(" ") }
  text = PP.pp(value, "", 60).lines.map(&:chomp)
  puts "One frame of #{bytes.bytesize} bytes, header first, and the value in it:", ""
  [hex.size, text.size].max.times { |n| puts format("  %-47s  %s", hex[n], text[n]).rstrip }
  puts
end

# Frame sizes change, and so do layouts.
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

def compare(expected, answers, received)
  answers.each do |answer|
    wanted = expected[received]
    raise Stream::Failure, "more answers than records" unless wanted
    unless answer == wanted
      raise Stream::Failure, "record #{wanted['id']} came back changed:\n  sent  #{wanted}\n  got   #{answer}"
    end
    received += 1
  end
  received
end

begin
  port, count = ARGV.map { |argument| Integer(argument) }
  records = Records.find(count)
  abort "client: no records on this machine" if records.empty?
  # A record that fits the screen comes first, alone in its frame.
  first = records.min_by { |record| (record.inspect.bytesize - 300).abs }
  records.unshift(records.delete_at(records.index(first)))
  messages = records.each_with_index.map { |record, id| message(id, record) }
  packages = records.count { |record| record.key?("version") }
  puts "#{records.size} records: #{packages} installed packages, #{records.size - packages} files"

  socket = TCPSocket.new("127.0.0.1", port)
  stream = Stream.new(socket, [16_384])
  started = now
  show(stream.send_frame([messages[0]], false), messages[0])

  # Sending and receiving go on at the same time, or both sides could wait for each other with full sockets.
  sender = Thread.new do
    batches(messages.drop(1)) { |batch| stream.send_frame(batch, stream.frames_out.odd?) }
    stream.finish
  end
  sender.abort_on_exception = false
  sender.report_on_exception = false if sender.respond_to?(:report_on_exception=)

  progress = Progress.new(messages.size)
  received = 0
  stream.each_frame do |answers|
    received = compare(messages, answers, received)
    progress.at(received)
  end
  raise Stream::Failure, "#{received} of #{messages.size} records came back" unless received == messages.size
  sender.join
  seconds = now - started

  sent = messages.size + received
  bytes = stream.bytes_out + stream.bytes_in
  puts format("Totals: %d messages in %d frames (8-byte and 12-byte headers in turn), %d bytes, in %.2f s",
              sent, stream.frames_out + stream.frames_in, bytes, seconds)
  puts format("        %.0f messages and %.1f MB per second, both directions, with all checking",
              sent / seconds, bytes / seconds / 1e6)
rescue Stream::Failure, SystemCallError => e
  abort "client: #{e.message}"
end
