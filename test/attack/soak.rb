# frozen_string_literal: true

# A day's work in one run: ten million messages through one pair of frames, then a million new buffers. The exit status
# is 1 if memory grows after the first tenth. bin/test soak runs it.

require "optparse"
require "vorn_rpc"

options = { messages: 10_000_000, buffers: 1_000_000 }
OptionParser.new do |o|
  o.banner = "usage: bin/test soak [options]"
  o.on("--messages N", Integer, "messages through one pair of frames (10,000,000)") { |n| options[:messages] = n }
  o.on("--buffers N", Integer, "fresh buffers (1,000,000)") { |n| options[:buffers] = n }
end.parse!

TOLERANCE = 8.0 # MB: the normal fluctuation of the allocator and the interpreter's heap

def resident
  GC.start
  File.read("/proc/self/status")[/^VmRSS:\s+(\d+) kB/, 1].to_i / 1024.0
end

# Runs a tenth of the work ten times and returns whether memory stayed flat after the first.
def flat?(name, total)
  started = Process.clock_gettime(Process::CLOCK_MONOTONIC)
  readings = Array.new(10) do |tenth|
    $stderr.print "\r#{name}: #{tenth * 10} %\e[K" if $stderr.tty?
    yield total / 10
    resident
  end
  $stderr.print "\r\e[K" if $stderr.tty?
  seconds = Process.clock_gettime(Process::CLOCK_MONOTONIC) - started
  figures = readings.map { |mb| mb.round(1) }.join(" ")
  puts format("%d %s in %.1f s; MB after each tenth: %s", total, name, seconds, figures)
  readings.max - readings.first <= TOLERANCE
end

# Messages of every size, several per frame, in chunks with arbitrary boundaries.
random = Random.new(1)
messages = Array.new(500) do |i|
  { "id" => i, "method" => "m#{i % 20}", "key #{i}" => :"symbol#{i % 50}",
    "list" => Array.new(random.rand(8)) { random.rand }, "text" => "x" * random.rand(40) }
end
PER_FRAME = 50
out = VORN::PROTO::PacketFrameOut.new
frame = VORN::PROTO::PacketFrameIn.new

flat_messages = flat?("messages", options[:messages]) do |count|
  (count / PER_FRAME).times do |n|
    out.reset
    first = n * PER_FRAME % messages.size
    sent = messages[first, PER_FRAME]
    sent.each { |message| out << message }
    stream = out.compute_frame_header.to_str
    out.inc_seq
    frame.reset
    offset = 0
    while offset < stream.bytesize
      chunk = stream.byteslice(offset, 1460)
      frame.assemble(chunk, 0)
      offset += chunk.bytesize
    end
    frame.preserve_symbols_on_extract = true
    frame.seek_payload_start
    sent.each { |message| frame.extract_object == message or abort "a message changed" }
  end
end

flat_buffers = flat?("buffers", options[:buffers]) do |count|
  count.times { |i| VORN::PROTO::PacketBuf.new.write_object(messages[i % messages.size]) }
end

abort "memory grew" unless flat_messages && flat_buffers
