#!/usr/bin/env ruby
# frozen_string_literal: true

# Vorn RPC against the codecs that a Ruby program would otherwise use.
#
#   bench/ruby_codec.rb [options] [FILE.json ...]
#
# All run in one process, in turn, round after round; each figure is the best CPU time of all rounds. Every result
# is checked before it is timed. A codec that cannot represent a document is left out of that document's row.

root = File.expand_path("..", __dir__)
$LOAD_PATH.unshift(File.join(root, "lib"))
require "json"
require "optparse"
require "vorn_rpc"
require_relative "documents"

options = { rounds: 25, filter: //, codecs: //, floor: ENV["VORN_FLOOR"] }
OptionParser.new do |o|
  o.banner = "usage: bench/ruby_codec.rb [options] [FILE.json ...]"
  o.on("--rounds N", Integer, "rounds of all codecs (25)") { |n| options[:rounds] = n }
  o.on("--document REGEXP", Regexp, "only documents whose name matches") { |r| options[:filter] = r }
  o.on("--codec REGEXP", Regexp, "only codecs whose name matches, and ours") { |r| options[:codecs] = r }
  o.on("--floor DIR", "folder of the built bench/floor extension") { |dir| options[:floor] = dir }
  o.on("--json FILE", "write the figures to FILE") { |file| options[:json] = file }
end.parse!

Codec = Struct.new(:name, :encode, :decode, :version)

# Vorn RPC as a service uses it: one buffer, one outbound and one inbound frame, all reused.
CHUNK = 64 * 1024
buf = VORN::PROTO::PacketBuf.new
frame_out = VORN::PROTO::PacketFrameOut.new
frame_in = VORN::PROTO::PacketFrameIn.new

encode = lambda do |value|
  buf.reset
  buf << value
  buf.to_str
end

decode = lambda do |bytes|
  buf.reset
  buf.write_raw(bytes)
  buf.pos = 0
  buf.extract_object
end

# Sends the value through a frame that arrives in chunks. A short stream is a single chunk.
through_frames = lambda do |value|
  frame_out.reset
  frame_out << value
  stream = frame_out.compute_frame_header.to_str
  frame_in.reset
  offset = 0
  while offset < stream.bytesize
    chunk = stream.bytesize > CHUNK ? stream.byteslice(offset, CHUNK) : stream
    offset += frame_in.assemble(chunk, 0)
  end
  frame_in.seek_payload_start
  frame_in.extract_object
end

codecs = [Codec.new("vorn", encode, decode, VORN::VERSION)]

def optional(library)
  require library
  yield
rescue LoadError
  warn "#{library} is not installed: left out"
  []
end

peers = []
peers.concat(optional("msgpack") do
  [Codec.new("msgpack", MessagePack.method(:pack), MessagePack.method(:unpack), MessagePack::VERSION)]
end)
peers.concat(optional("oj") do
  [Codec.new("oj", ->(v) { Oj.dump(v, mode: :compat) }, ->(s) { Oj.load(s, mode: :strict) }, Oj::VERSION)]
end)
peers.concat(optional("cbor") { [Codec.new("cbor", CBOR.method(:encode), CBOR.method(:decode), CBOR::VERSION)] })
peers << Codec.new("json", JSON.method(:generate), JSON.method(:parse), JSON::VERSION)
peers << Codec.new("marshal", Marshal.method(:dump), Marshal.method(:load),
                   "#{Marshal::MAJOR_VERSION}.#{Marshal::MINOR_VERSION}")
codecs.concat(peers.select { |c| c.name =~ options[:codecs] })
if options[:floor]
  require File.join(File.expand_path(options[:floor]), "floor")
end

def cpu
  Process.clock_gettime(Process::CLOCK_PROCESS_CPUTIME_ID)
end

# Microseconds per call. The collection at the start keeps one codec's garbage out of the next codec's figures.
def sample(calls)
  GC.start
  start = cpu
  i = 0
  while i < calls
    yield
    i += 1
  end
  (cpu - start) * 1e6 / calls
end

MIN_SAMPLE = 4e-3 # seconds

def calls_for
  start = cpu
  yield
  [(MIN_SAMPLE / [cpu - start, 1e-7].max).ceil, 2_000].min
end

documents = Documents.all.select { |name, _| name =~ options[:filter] }
ARGV.each { |file| documents[File.basename(file)] = JSON.parse(File.read(file, encoding: "UTF-8")) }

figures = {}
documents.each_with_index do |(name, document), index|
  unless through_frames.call(document) == document
    warn "vorn does not give #{name} back (integers beyond 32 bits?): left out"
    next
  end
  works = {}
  codecs.each do |codec|
    bytes = codec.encode.call(document)
    unless codec.decode.call(bytes) == document
      warn "#{codec.name} does not give #{name} back: left out"
      next
    end
    works["encode/#{codec.name}"] = -> { codec.encode.call(document) }
    works["decode/#{codec.name}"] = -> { codec.decode.call(bytes) }
    next if codec.name == "vorn"
    works["round trip/#{codec.name}"] = -> { codec.decode.call(codec.encode.call(document)) }
  end
  works["round trip/vorn"] = -> { through_frames.call(document) }
  if options[:floor]
    abort "the floor does not build #{name}" unless Floor.build(document) == document
    # The floor makes no String of the bytes that it copies, so it is compared with encoding into a buffer.
    works["encode/in buffer"] = -> { buf.reset; buf << document }
    works["encode/floor"] = -> { Floor.walk(document) }
    works["decode/floor"] = -> { Floor.build(document) }
  end

  calls = works.map { |work, code| [work, calls_for(&code)] }.to_h
  best = Hash.new(Float::INFINITY)
  options[:rounds].times do |round|
    if $stderr.tty?
      $stderr.print "\r#{name} (#{index + 1} of #{documents.size}): round #{round + 1} of #{options[:rounds]}\e[K"
    end
    works.each { |work, code| best[work] = [best[work], sample(calls[work], &code)].min }
  end
  $stderr.print "\r\e[K" if $stderr.tty?
  figures[name] = { "bytes" => encode.call(document).bytesize, "microseconds" => best.to_h }
end

# --- the table --------------------------------------------------------------------------------------------

puts RUBY_DESCRIPTION
puts codecs.map { |codec| "#{codec.name} #{codec.version}" }.join(", ")
puts "best CPU time of #{options[:rounds]} rounds, microseconds; ratio: fastest peer / ours"
means = {}
%w[encode decode].push("round trip").each do |operation|
  beside = options[:floor] ? { "encode" => ["in buffer", "floor"], "decode" => ["floor"] }.fetch(operation, []) : []
  names = codecs.map(&:name) + beside
  puts
  floor = beside.empty? ? "" : "  ours/floor"
  puts "#{format("%-18s", operation)}#{names.map { |n| n.rjust(10) }.join}  fastest peer  ratio#{floor}"
  ratios = []
  figures.each do |name, figure|
    times = figure["microseconds"].select { |work, _| work.start_with?("#{operation}/") }
                                  .map { |work, t| [work.split("/")[1], t] }.to_h
    peer, peer_time = times.reject { |n, _| n == "vorn" || beside.include?(n) }.min_by { |_, t| t }
    row = format("%-18s", name) + names.map { |n| times[n] ? format("%10.1f", times[n]) : "-".rjust(10) }.join
    if peer
      ratios << peer_time / times["vorn"]
      row << format("  %-12s  %5.2f", peer, ratios.last)
      figure["#{operation} ratio"] = ratios.last
    end
    row << format("  %10.2f", (times["in buffer"] || times["vorn"]) / times["floor"]) if times["floor"]
    puts row
  end
  next if ratios.empty?
  means[operation] = Math.exp(ratios.map { |r| Math.log(r) }.inject(:+) / ratios.size)
  puts format("geometric mean of the ratios: %.2f", means[operation])
end

if options[:json]
  versions = codecs.map { |codec| [codec.name, codec.version] }.to_h
  report = { "ruby" => RUBY_DESCRIPTION, "codecs" => versions,
             "date" => Time.now.strftime("%Y-%m-%d"), "rounds" => options[:rounds],
             "geometric means" => means, "documents" => figures }
  File.write(options[:json], JSON.pretty_generate(report) << "\n")
end
