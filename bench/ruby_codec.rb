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
require "tmpdir"
require_relative "codec_table"
require_relative "codecs"
require_relative "documents"
require_relative "measuring"

arguments = ARGV.dup
options = { rounds: 25, filter: //, codecs: //, floor: ENV["VORN_FLOOR"] }
OptionParser.new do |o|
  o.banner = "usage: bench/ruby_codec.rb [options] [FILE.json ...]"
  o.on("--rounds N", Integer, "rounds of all codecs (25)") { |n| options[:rounds] = n }
  o.on("--document REGEXP", Regexp, "only documents whose name matches") { |r| options[:filter] = r }
  o.on("--codec REGEXP", Regexp, "only codecs whose name matches, and ours") { |r| options[:codecs] = r }
  o.on("--instructions DIR", "also count instructions, with callgrind; folder of the built bench/callgrind") do |dir|
    options[:callgrind] = File.expand_path(dir)
  end
  o.on("--floor DIR", "folder of the built bench/floor extension") { |dir| options[:floor] = File.expand_path(dir) }
  o.on("--json FILE", "write the figures to FILE") { |file| options[:json] = file }
  o.on("--count FILE", "for --instructions: only count, in this process under callgrind") { |f| options[:count] = f }
end.parse!
require File.join(options[:floor], "floor") if options[:floor]
require File.join(options[:callgrind], "callgrind") if options[:count]

def chosen(codecs, options)
  codecs.select { |codec| codec.name == "vorn" || codec.name =~ options[:codecs] }
end

# What is measured with a document: procs by operation and codec.
def works(document, options)
  value = document.value
  chosen(Codecs.of(document.use), options).each_with_object({}) do |codec, works|
    bytes = bytes_if_faithful(codec, value)
    unless bytes
      raise "we do not give #{document.name} back" if codec.name == "vorn"
      warn "#{codec.name} does not give #{document.name} back: left out" unless options[:count]
      next
    end
    works["encode/#{codec.name}"] = -> { codec.encode.call(value) }
    works["decode/#{codec.name}"] = -> { codec.decode.call(bytes) }
    works["round trip/#{codec.name}"] = -> { codec.round_trip.call(value) }
  end
end

# The encoded value, or nil if the codec refuses it or gives another one back.
def bytes_if_faithful(codec, value)
  bytes = codec.encode.call(value)
  bytes if codec.decode.call(bytes) == value && codec.round_trip.call(value) == value
rescue StandardError
  nil
end

# The floor makes no String of the bytes that it copies, so it is compared with encoding into a buffer.
def floor_works(document)
  value = document.value
  abort "the floor does not build #{document.name}" unless Floor.build(value) == value
  buf = VORN::PROTO::PacketBuf.new
  { "encode/in buffer" => -> { buf.reset; buf << value },
    "encode/floor" => -> { Floor.walk(value) },
    "decode/floor" => -> { Floor.build(value) } }
end

def progress(text)
  $stderr.print "\r#{text}\e[K" if $stderr.tty?
end

# For callgrind, `rep movsb` is an instruction for each byte, and libc copies all but short Strings with it: so libc is
# told that the processor has no fast one.
TUNABLES = { "GLIBC_TUNABLES" => "glibc.cpu.hwcaps=-ERMS" }.freeze

# Runs this program again, under callgrind.
def instructions(arguments)
  Dir.mktmpdir do |folder|
    file = File.join(folder, "counts")
    ok = system(TUNABLES, "valgrind", "-q", "--tool=callgrind", "--instr-atstart=no",
                "--callgrind-out-file=#{file}.dump", RbConfig.ruby, *$LOAD_PATH.map { |path| "-I#{path}" },
                __FILE__, *arguments, "--count", file)
    abort "counting failed" unless ok
    JSON.parse(File.read(file))
  end
end

documents = Documents.all.select { |document| document.name =~ options[:filter] }
ARGV.each do |file|
  value = JSON.parse(File.read(file, encoding: "UTF-8"))
  documents << Documents::Document.new(File.basename(file), value, :reused)
end

figures = {}
documents.each_with_index do |document, index|
  begin
    works = works(document, options)
  rescue RuntimeError => e
    warn "#{e.message} (integers beyond 32 bits?): left out"
    next
  end
  label = "#{document.name} (#{index + 1} of #{documents.size})"
  if options[:count]
    progress "#{label}: counting"
    figures[document.name] = Measuring.instructions(works, "#{options[:count]}.dump")
    next
  end
  works.merge!(floor_works(document)) if options[:floor] && document.use == :reused
  times = Measuring.times(works, options[:rounds]) do |round|
    progress "#{label}: round #{round + 1} of #{options[:rounds]}"
  end
  figures[document.name] = { "bytes" => Codecs.of(document.use)[0].encode.call(document.value).bytesize,
                             "microseconds" => times }
end
progress ""
if options[:count]
  File.write(options[:count], JSON.generate(figures))
  exit
end
if options[:callgrind]
  instructions(arguments).each { |name, counts| figures[name]["instructions"] = counts }
end

codecs = chosen(Codecs.of(:reused), options)
puts RUBY_DESCRIPTION
puts codecs.map { |codec| "#{codec.name} #{codec.version}" }.join(", ")
puts "best CPU time of #{options[:rounds]} rounds, microseconds; ratio: fastest peer / ours"
table = CodecTable.new(codecs.map(&:name), figures, options[:floor])
table.print
if options[:json]
  report = { "ruby" => RUBY_DESCRIPTION, "codecs" => codecs.map { |codec| [codec.name, codec.version] }.to_h,
             "date" => Time.now.strftime("%Y-%m-%d"), "rounds" => options[:rounds],
             "geometric means" => table.means, "documents" => figures }
  File.write(options[:json], JSON.pretty_generate(report) << "\n")
end
