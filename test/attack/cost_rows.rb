# frozen_string_literal: true

require "vorn_rpc_ext"
require_relative "../support/hex"
require_relative "cost_meter"

# The work behind each figure of docs/operations/threat-model.md. Each row is measured in a separate process, which runs
# this file.
#
#   ruby cost_rows.rb NAME SIZE KEYS     prints one line: payload, grown, seconds, waited, note, between tabs
module CostRows
  include VORN::PROTO

  class << self
    # An array of as many units as fit into `size` bytes.
    def array_of(unit, size)
      "\x0A".b + unit * [(size - 2) / unit.bytesize, 1].max + "\x0B".b
    end

    # A hash with `count` keys, each with a nil. Building it leaves few freed objects: the measured work would reuse
    # their memory and seem cheaper.
    def hash_of(count)
      payload = "\x08".b
      count.times { |n| payload << yield(n) << "\0" }
      payload << "\x09"
    end

    def buffer(payload, symbols = false)
      buf = VORN::PROTO::PacketBuf.new.write_raw(payload).seek(0)
      buf.preserve_symbols_on_extract = symbols
      buf
    end

    def decode(payload, symbols = false)
      buf = buffer(payload, symbols)
      size = payload.bytesize
      payload.clear
      [size, CostMeter.read { buf.extract_object }]
    end

    def integer(number)
      VORN::PROTO::PacketBuf.new.write_object(number).to_str
    end
  end

  # --- memory, by what a payload of `size` bytes consists of -----------------------------------------------

  # The names are those of the document, and include the worst that bin/attack --costs --search finds.
  UNITS = {
    "nil" => "00",
    "empty arrays" => "0A 0B",
    "empty hashes" => "08 09",
    "empty strings" => "05 00",
    "hashes of one entry" => "08 81 00 09",
    "hashes with a hash as key" => "08 08 09 00 09",
    "hashes in hashes" => "08 81 08 81 00 09 09",
    "arrays of one hash" => "0A 08 09 0B",
    "arrays of four" => "0A 00 00 00 00 0B",
    "doubles" => "04 3F F8 00 00 00 00 00 00",
    "doubles on the heap" => "04 00 00 00 00 00 00 00 03",
    "floats on the heap" => "03 00 00 00 01"
  }.freeze

  MEMORY = UNITS.map do |name, unit|
    [name, ->(size, _) { decode(array_of(Hex.decode(unit), size)) }]
  end.to_h

  # Distinct names of three bytes each.
  def self.array_of_symbols(size)
    payload = "\x0A".b
    ((size - 2) / 5).times { |n| payload << 6 << 3 << 33 + n / 8100 % 90 << 33 + n / 90 % 90 << 33 + n % 90 }
    payload << "\x0B"
  end

  MEMORY["symbols, preserved"] = ->(size, _) { decode(array_of_symbols(size), true) }

  # --- time, by the keys of a hash ----------------------------------------------------------------------

  NAN = "\x03\x7F\xC0\0\0".b
  ZERO = "\x03\0\0\0\0".b

  # Colliding keys. The last two collide from Ruby 2.7 on, where false and 0.0 have the same hash.
  KEYS = {
    "NaN keys" => ->(_) { NAN },
    "[NaN] keys" => ->(_) { "\x0A".b + NAN + "\x0B".b },
    "{0.0=>n, false=>n} keys" => lambda do |n|
      number = integer(n)
      "\x08".b + ZERO + number + "\x01".b + number + "\x09".b
    end,
    "[0.0 or false, ...] keys" => lambda do |n|
      "\x0A".b + (0...20).map { |bit| n[bit] == 0 ? ZERO : "\x01".b }.join + "\x0B".b
    end
  }.freeze

  TIME = {}
  KEYS.each do |name, key|
    [8, 4, 2, 1].each do |part|
      TIME["#{name}, #{part == 1 ? "all" : "1/#{part}"}"] = lambda do |_, keys|
        decode(hash_of(keys / part, &key))
      end
    end
  end

  # `count` keys that share `size` bytes, each with a NaN at its end, which makes it unequal to the others.
  def self.long_keys(count, size, filler)
    share = [(size / count - 8) / filler.bytesize, 0].max
    key = "\x0A".b + filler * share + NAN + "\x0B".b
    hash_of(count) { key }
  end

  TIME["100 long keys: nils, NaN"] = ->(size, _) { decode(long_keys(100, size, "\0".b)) }
  TIME["100 long keys: empty strings, NaN"] = ->(size, _) { decode(long_keys(100, size, "\x05\0".b)) }
  TIME["100 long keys: arrays of arrays, NaN"] = lambda do |size, _|
    decode(long_keys(100, size, "\x0A".b * 60 + "\x0B".b * 60))
  end

  # --- the rest -----------------------------------------------------------------------------------------

  OTHER = {}
  # Announces 1 GiB where the other payloads have 1 MiB.
  OTHER["header that announces 1024 times this"] = lambda do |size, _|
    frame = VORN::PROTO::PacketFrameIn.new.reset
    header = [0xA5, 1, 0, 1024 * size].pack("CCnN")
    [header.bytesize, CostMeter.read { frame.assemble(header, 0) }]
  end

  USES = {
    "compared" => ->(name) { name == :other },
    "sent to" => ->(name) { "text".respond_to?(name) },
    "sent" => ->(name) { begin; 1.public_send(name); rescue NoMethodError; nil; end },
    "to_proc" => ->(name) { name.to_proc },
    "instance_variable_set" => ->(name) { Object.new.instance_variable_set(:"@#{name}", 1) },
    "define_method" => ->(name) { Module.new { define_method(name) {} } },
    "Struct.new" => ->(name) { Struct.new(name) }
  }.freeze

  # How many names remain Symbols after the last reference is gone.
  USES.each do |use, work|
    OTHER["symbols: #{use}"] = lambda do |_, keys|
      prefix = "vorn_#{use.tr(" .", "__")}_"
      buf = VORN::PROTO::PacketBuf.new
      buf.preserve_symbols_on_extract = true
      reading = CostMeter.read do
        keys.times do |n|
          buf.reset << :"#{prefix}#{n}"
          work.call(buf.seek(0).extract_object)
        end
      end
      1_000.times { |n| (buf.reset << :"other#{n}").seek(0).extract_object } # the decoder keeps recent Symbols
      3.times { GC.start }
      kept = Symbol.all_symbols.count { |symbol| symbol.to_s =~ /\A@?#{prefix}\d+\z/ }
      [buf.payload_size * keys, reading, "kept #{kept} of #{keys}"]
    end
  end

  ALL = MEMORY.merge(TIME).merge(OTHER)

  if $PROGRAM_NAME == __FILE__
    payload, reading, note = ALL.fetch(ARGV[0]).call(Integer(ARGV[1]), Integer(ARGV[2]))
    puts [payload, reading.bytes, reading.seconds, reading.waited, note].join("\t")
  end
end
