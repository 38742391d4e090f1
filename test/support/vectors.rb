# frozen_string_literal: true

require_relative "hex"

# Reads the tables in test/vectors/, which the C++ tests read too. The README there describes the lines and the
# notation of values.
module Vectors
  DIR = File.expand_path("../../vectors", __FILE__)

  Value = Struct.new(:name, :bytes, :ruby, :ruby_as_strings, :ruby_bytes, :variant, :variant_as_strings, :variant_bytes)
  Fault = Struct.new(:name, :bytes, :payload, :maxdepth, :fault, :pos)
  Frame = Struct.new(:name, :stream, :consumed, :state, :layout, :seq, :data_len, :payload, :written) do
    def complete?
      state == "complete"
    end
  end

  # `options` are a decoder's; `messages` of each frame. `written` is 8, 12 or nil.
  Stream = Struct.new(:name, :options, :skip, :bytes, :outcome, :written) do
    def frames
      outcome.select { |event| event.start_with?("<") }.map { |event| event[1..-2].split(", ") }
    end
  end

  # What a server does with the payload of a frame: the payloads of its answers, and "closes".
  Call = Struct.new(:name, :payload, :outcome) do
    # Sends it to a server. When all has come that should, another request shows that nothing else does.
    def outcome_at(socket)
      socket.write(Vectors.frame(payload))
      answers = outcome.map { answer(socket) }
      return answers if answers.last == "closes"
      socket.write(Vectors.frame(Hex.decode("0A 07 03 65 6E 64 07 04 65 63 68 6F 0A 00 0B 0B")))
      last = answer(socket)
      last == "0A 07 03 65 6E 64 00 00 0B" ? answers : answers << last
    end

    private

    def answer(socket)
      header = socket.read(8)
      header ? Hex.encode(socket.read(header.unpack("x4N")[0])).upcase : "closes"
    rescue Errno::ECONNRESET
      "closes"
    end
  end

  module_function

  def frame(payload)
    [0xA5, 1, 0, payload.bytesize].pack("CCnN") + payload
  end

  def calls
    table("calls.txt", 3).map do |name, payload, outcome|
      outcomes = outcome.split(";").map { |cell| cell.strip == "closes" ? "closes" : Hex.encode(bytes(cell)).upcase }
      Call.new(name, bytes(payload), outcome == "-" ? [] : outcomes)
    end
  end

  # The results of each codec: notation or "!fault", and the bytes it writes, nil if none.
  def values
    table("values.txt", 8).map do |name, bytes, ruby, ruby_as_strings, variant, variant_as_strings, *written|
      raw = bytes(bytes)
      ruby = expand(ruby)
      variant = variant == "=" ? ruby.gsub(/[bu]:/, "t:") : expand(variant)
      ruby_bytes, variant_bytes = written.map { |cell| cell == "=" ? raw : (bytes(cell) unless cell == "-") }
      ruby_as_strings = ruby_as_strings == "=" ? ruby.gsub("s:", "u:") : expand(ruby_as_strings)
      variant_as_strings = variant_as_strings == "=" ? variant.gsub("s:", "t:") : expand(variant_as_strings)
      Value.new(name, raw, ruby, ruby_as_strings, ruby_bytes, variant, variant_as_strings, variant_bytes)
    end
  end

  # `payload` is nil for a plain buffer.
  def faults
    table("faults.txt", 8).map do |name, bytes, payload, maxdepth, fault, pos|
      Fault.new(name, bytes(bytes), payload == "all" ? nil : Integer(payload), Integer(maxdepth), fault,
                Integer(pos))
    end
  end

  def frames
    table("frames.txt", 9).map do |name, stream, consumed, state, layout, seq, data_len, payload, out|
      Frame.new(name, bytes(stream), Integer(consumed), state, layout == "-" ? nil : Integer(layout),
                Integer(seq), Integer(data_len), bytes(payload), out == "=")
    end
  end

  def streams
    table("streams.txt", 5).map do |name, options, stream, outcome, written|
      words = options.split - ["-", "skip"]
      options_given = words.map { |word| [word[/\A\w+/].to_sym, word[/=(\d+)/, 1].to_i] }.to_h
      options_given[:preserve_symbols] = true if options_given.delete(:symbols)
      Stream.new(name, options_given, options.include?("skip"), bytes(stream),
                 outcome == "-" ? [] : expand(outcome).split("; "), written == "=" ? nil : Integer(written))
    end
  end

  # Where to cut bytes of this length: everywhere, or near both ends if there are many.
  def cuts(length)
    (0...length).select { |i| i < 100 || i + 100 >= length }
  end

  # "(3:ab)" becomes "ababab".
  def expand(text)
    text.gsub(/\((\d+):([^()]*)\)/) { $2 * $1.to_i }
  end

  def bytes(text)
    digits = expand(text).delete(" ")
    return "".b if digits == "-"
    raise "not hexadecimal bytes: #{text}" unless digits =~ /\A([0-9A-F]{2})*\z/
    Hex.decode(digits)
  end

  # The cells of each row, in order; cells left out are "=".
  def table(file, columns)
    rows = File.readlines(File.join(DIR, file)).map(&:strip)
    rows = rows.reject { |line| line.empty? || line.start_with?("#") }
    rows = rows.map { |line| line.split("|").map(&:strip) }
    raise "#{file}: no rows" if rows.empty?
    rows.each { |cells| raise "#{file}: too many cells: #{cells.first}" if cells.size > columns }
    twice = rows.map(&:first).group_by { |name| name }.select { |_, all| all.size > 1 }.keys
    raise "#{file}: duplicate names: #{twice.join(', ')}" unless twice.empty?
    rows.map { |cells| cells + ["="] * (columns - cells.size) }
  end
end
