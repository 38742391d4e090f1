# frozen_string_literal: true

# Compares tshark's output through tools/wireshark/vorn.lua with the known contents of the bytes.
#
# Captures are written segment by segment (make_pcap.rb), except for one that is recorded on loopback.
require "socket"
require "timeout"
require_relative "../support/hex"
require_relative "../support/vectors"
require_relative "make_pcap"
require_relative "message_text"
require_relative "stream_model"
require_relative "tool_test_case"
require_relative "tshark"

class DissectorTest < ToolTestCase
  FAULTS = {
    "max_depth" => "maxdepth exceeded",
    "underrun" => "buffer underrun", "underrun_hash" => "buffer underrun", "underrun_array" => "buffer underrun",
    "underrun_float" => "buffer underrun", "underrun_double" => "buffer underrun",
    "underrun_int" => "buffer underrun decoding integer",
    "underrun_length" => "buffer underrun decoding data length",
    "underrun_string" => "buffer underrun extracting data bytes",
    "unknown_type" => "unrecognized protocol transport type",
    "hash_key" => "only hash keys of type string are supported"
  }.freeze
  FRAME_ERRORS = ["Bad Header CRC", "Bad Payload Data CRC", "Payload size exceeds soft limit"].freeze
  MEANS = %w[vorn.seq vorn.layout vorn.length vorn.message vorn.error vorn.skipped].freeze

  def setup
    super
    @captures = 0
  end

  def test_values
    rows = Vectors.table("values.txt", 8)
    stream = rows.each_with_index.map { |row, seq| frame(seq, Vectors.bytes(row[1]), seq.odd? ? 12 : 8) }
    shown = Tshark.packets(capture(stream.map { |bytes| PcapWriter.cut(bytes, 1400) }.flatten),
                           %w[vorn.seq vorn.message vorn.error vorn.malformed], "-Y", "vorn.seq", *Tshark::DECODE_AS)
    check("a packet for each value", (0...rows.size).map(&:to_s), shown.map { |packet| packet["vorn.seq"] }.flatten)
    rows.zip(shown).each do |row, packet|
      meaning = extracted(row)
      expected = meaning.start_with?("!") ? [[], [FAULTS.fetch(meaning[1..-1])]] : [[MessageText.of(meaning)], []]
      check(row.first, expected, packet.values_at("vorn.message", "vorn.error"))
      check("#{row.first}: not malformed", [], packet["vorn.malformed"])
    end
  end

  # Single values in their own fields. tshark prints an empty value like a missing one, so those get a filter.
  def test_value_fields
    rows = Vectors.table("values.txt", 8).select { |row| row[2] !~ /[\[{!]/ && Vectors.bytes(row[1]).bytesize < 1000 }
    empty, rows = rows.partition { |row| row[2] =~ /:\z/ }
    empty.each do |row|
      filter = %q(%s && vorn.message == "\"\"") % field_of(row)
      check(row.first, 1, found(frame(1, Vectors.bytes(row[1])), "-Y", filter))
    end
    fields = %w[nil bool int float double string binary symbol].map { |name| "vorn.value.#{name}" }
    streams = Tshark.streams(capture(*rows.map { |row| [frame(1, Vectors.bytes(row[1]))] }), fields,
                             *Tshark::DECODE_AS)
    check("a connection for each value", rows.size, streams.size)
    rows.each_with_index do |row, number|
      shown = streams[number].reject { |_, values| values.empty? }
      check(row.first, [field_of(row)], shown.keys)
      expected, value = expected_value(row), shown.values.flatten.first
      value = { "1" => "True", "0" => "False" }.fetch(value, value) if field_of(row) =~ /bool/
      value = [value.to_f].pack("G") if expected.is_a?(String) && field_of(row) =~ /float|double/
      check("#{row.first}: value", expected, value) if expected
    end
  end

  def test_nested_fields
    hash = "08 05 02 69 64 AA 01 06 01 70 0A 82 07 01 78 0A 0B 0B 81 08 09 09" # {"id"=>42, p: [2, "x", []], 1=>{}}
    fields = %w[vorn.value.key vorn.value.count vorn.value.int vorn.value.string vorn.value.symbol vorn.messages]
    shown = Tshark.streams(capture([frame(1, Vectors.bytes("81 #{hash} 82"))]), fields + MEANS, *Tshark::DECODE_AS)[0]
    check("keys", %w[id p 1], shown["vorn.value.key"])
    check("counts", %w[0 3 0 3], shown["vorn.value.count"])
    check("integers, also behind a key that is no string", %w[1 42 2 1 2], shown["vorn.value.int"])
    check("strings", %w[x], shown["vorn.value.string"])
    check("symbols", %w[p], shown["vorn.value.symbol"])
    check("messages up to the first that fails", [%w[1], %w[1]], shown.values_at("vorn.message", "vorn.messages"))
    check("why it fails", [FAULTS["hash_key"]], shown["vorn.error"])
  end

  def test_faults
    # Empty payloads have no message; the dissector reads symbols as strings, also as keys; the depth limit is 64.
    rows = Vectors.table("faults.txt", 8).select { |row| row[3] == "64" && row[2] != "0" && row[1] != "-" }
    streams = Tshark.streams(capture(*rows.map { |row| [frame(1, "80".hex.chr.b + payload_of(row))] }),
                             %w[vorn.message vorn.error vorn.malformed vorn.not_native], *Tshark::DECODE_AS)
    rows.each_with_index do |row, number|
      fault = row[6] == "=" ? row[4] : row[6]
      fault = "none" if row.first == "key symbol"
      shown = streams[number]
      check(row.first, fault == "none" ? [] : [FAULTS.fetch(fault)], shown["vorn.error"])
      check("#{row.first}: the message before", "0", shown["vorn.message"].first)
      next if fault == "none"
      check("#{row.first}: message withheld", 1, shown["vorn.message"].size)
      check("#{row.first}: marked", true, shown[fault == "hash_key" ? "vorn.not_native" : "vorn.malformed"].any?)
    end
  end

  def test_frames
    rows = Vectors.frames
    [[100_000], [1400], [7], [1], [13, 1, 500]].each do |sizes|
      cut = rows.select { |row| sizes.first > 100 || row.stream.bytesize < 2000 }
      name = capture(*cut.map { |row| PcapWriter.cut(row.stream, *sizes.map { |size| [size, 60_000].min }) })
      streams = Tshark.streams(name, MEANS + %w[vorn.payload], *Tshark::DECODE_AS)
      cut.each_with_index { |row, number| check_frame("#{row.name}, segments of #{sizes}", row, streams[number]) }
    end
  end

  def test_every_cut
    stream = sample_stream
    expected = meaning_of(stream)
    streams = Tshark.streams(capture(*(1...stream.bytesize).map { |size| PcapWriter.cut(stream, size, 100_000) },
                                     PcapWriter.cut(stream, 1), PcapWriter.cut(stream, 2), [stream]),
                             MEANS, *Tshark::DECODE_AS)
    check("connections", stream.bytesize + 2, streams.size)
    streams.sort.each { |number, shown| check("cut #{number + 1}", expected, summary(shown)) }
  end

  def test_both_directions
    request, answer = frame(1, "\x81".b), frame(2, "\x82".b * 3, 12)
    name = capture([[:client, request[0, 5]], [:server, answer[0, 3]], [:client, request[5..-1]],
                    [:server, answer[3, 10]], [:client, request], [:server, answer[13..-1] + answer]])
    shown = Tshark.packets(name, %w[tcp.srcport vorn.seq vorn.message], "-Y", "vorn", *Tshark::DECODE_AS)
    shown = shown.reject { |packet| packet["vorn.seq"].empty? }.map(&:values)
    check("each direction by itself",
          [[%w[20001], %w[1], %w[1]], [%w[20001], %w[1], %w[1]], [%w[40700], %w[2 2], %w[2] * 6]], shown)
  end

  # Damaged streams, compared with an independent reader of frames.
  def test_mutated_streams
    random = Random.new(Integer(ENV.fetch("VORN_SEED", 20_240_607)))
    in_batches(Integer(ENV.fetch("VORN_CAPTURES", 400))) do |count|
      streams = Array.new(count) { mutate(Array.new(6) { random_frame(random) }.join, random) }
      name = capture(*streams.map { |bytes| PcapWriter.cut(bytes, *Array.new(9) { 1 + random.rand(60) }) })
      shown = Tshark.streams(name, MEANS, *Tshark::DECODE_AS, "-o", "vorn.max_frame:4096")
      streams.each_with_index do |stream, number|
        check("stream #{number}: #{Hex.encode(stream)}", meaning_of(stream), summary(shown[number]))
      end
    end
  end

  # Segments that are lost, repeated, out of order, or longer or shorter than announced; arbitrary payloads; limits that
  # are reached; with trees and without. There is always a result, and never an error of the script.
  def test_mutated_captures
    random = Random.new(Integer(ENV.fetch("VORN_SEED", 4711)))
    in_batches(Integer(ENV.fetch("VORN_CAPTURES", 400))) do |count|
      connections = Array.new(count) do
        frames = Array.new(1 + random.rand(5)) { random.rand(3) == 0 ? odd_frame(random) : random_frame(random) }
        stream = mutate(frames.join, random)
        shuffle(PcapWriter.cut(stream, *Array.new(6) { 1 + random.rand(80) }), random)
      end
      name = path("mutated.pcap")
      File.open(name, "wb") do |file|
        pcap = PcapWriter.new(file, [262_144, 90, 60][random.rand(3)])
        connections.each { |segments| pcap.connection(segments, out_of_order: true) }
      end
      options = [[], ["-2"], ["-o", "vorn.max_values:20"], ["-o", "tcp.desegment_tcp_streams:FALSE"],
                 ["-o", "tcp.reassemble_out_of_order:TRUE"]][random.rand(5)]
      shown = Tshark.packets(name, %w[frame.number vorn.seq], *Tshark::DECODE_AS, *options)
      check("#{options.join(' ')}: packets", connections.map { |segments| 5 + segments.size }.inject(:+), shown.size)
      check("#{options.join(' ')}: frames", true, shown.any? { |packet| packet["vorn.seq"].any? })
      tree = Tshark.run(name, "-V", "-O", "vorn", *Tshark::DECODE_AS, *options)
      check("#{options.join(' ')}: the tree", false, tree.include?("Lua Error") || tree.include?("Dissector bug"))
    end
  end

  def test_how_streams_are_found
    frames = [frame(1, "\x81".b), frame(2, "\x82".b, 12), frame(3, "")]
    frames.each { |bytes| check("#{bytes.inspect} begins a stream", 1, found(bytes + bytes)) }
    foreign = ["GET / HTTP/1.1", frame(1, "\x81".b)[0, 7], "\xA5".b * 40, frame(1, "\x0C"), frame(1, "\x09"),
               frame(1, "") + "x", "\xA5\x03".b + frame(1, "\x81")[2..-1], "\xA5\x01\0\0\x7F\0\0\0\x81".b,
               frame(1, "\x81", 12).tap { |bytes| bytes.setbyte(11, 0x59) },
               frame(1, "\x81", 12).tap { |bytes| bytes.setbyte(7, 0) }]
    foreign.each { |bytes| check("#{bytes.inspect} does not", 0, found(bytes)) }
    inside = "behind" + frames.first
    check("a stream seen from the middle is not found", 0, found(inside))
    check("... but on a port of the preference", 1, found(inside, "-o", "vorn.ports:40690-40710,1"))
    check("... not on another", 0, found(inside, "-o", "vorn.ports:40701-40710"))
    check("... and when it is decoded as such", 1, found(inside, *Tshark::DECODE_AS))
  end

  def test_display_filters
    hash = Vectors.bytes("08 05 06 6D 65 74 68 6F 64 07 03 61 64 64 05 01 78 A0 01 09")
    lowest = Vectors.bytes("E0 (8:80) 04")
    name = capture([frame(1, hash)], [frame(2, lowest, 12)], [frame(3, "AB")], ["xyz" + frame(4, "\x81")],
                   [frame(5, "\x81", 12).tap { |bytes| bytes.setbyte(11, 0) }],
                   [frame(6, Vectors.bytes("0A 02 04 3F F8 (6:00) 06 01 73 05 02 FF 00 0B"))],
                   [frame(7, Vectors.bytes("0A 07 02 C3 A9 06 02 C3 A8 0B"))])
    {
      "vorn" => [0, 1, 2, 3, 4, 5, 6],
      "vorn.seq == 2" => [1], "vorn.seq > 2" => [2, 3, 5, 6], "vorn.length == 20" => [0],
      "vorn.layout == 12" => [1, 4], "vorn.error" => [2, 4], 'vorn.error == "Bad Header CRC"' => [4],
      'vorn.error contains "transport"' => [2], "vorn.malformed" => [2, 4], "vorn.skipped" => [3, 4],
      '_ws.expert.group == "Malformed"' => [2, 4], "_ws.expert.severity == error" => [2, 4],
      "vorn.value.int < -9223372036854775807" => [1], "vorn.value.int == 32" => [0],
      'vorn.value.string == "add"' => [0], 'vorn.value.string == "é"' => [6], 'vorn.value.symbol == "è"' => [6],
      'vorn.value.key == "method"' => [0], "vorn.value.bool" => [5],
      "vorn.value.double == 1.5" => [5], 'vorn.value.symbol == "s"' => [5], "vorn.value.binary == ff:00" => [5],
      'vorn.message contains "\\"method\\"=>\\"add\\""' => [0], 'vorn.message matches "^.true"' => [5],
      "vorn.messages == 1 && vorn.value.array" => [5, 6], "vorn.payload contains 41:42" => [2]
    }.each do |filter, expected|
      shown = Tshark.packets(name, %w[tcp.stream], "-Y", filter, *Tshark::DECODE_AS)
      check(filter, expected, shown.map { |packet| packet["tcp.stream"].first.to_i })
    end
  end

  def test_packet_list
    name = capture([frame(7, "\x81\x02"), frame(8, "A", 12)])
    lines = Tshark.run(name, "-Y", "vorn", *Tshark::DECODE_AS).lines
    check("a line", true, lines[0].include?(" VORN ") && lines[0].include?("Seq=7 Len=2 1"))
    check("a line with an error", true,
          lines[1].include?("Seq=8 Len=1 [unrecognized protocol transport type]"))
    verbose = Tshark.run(name, "-V", "-O", "vorn", *Tshark::DECODE_AS)
    check("the tree", true, verbose.include?("Vorn RPC, Seq=7 Len=2\n") && verbose.include?("Message: true\n"))
    check("the expert information", true, verbose.include?("[Severity level: Error]"))
  end

  # A line of the tree shows 120 bytes of a text, and a field 1 MiB of a string.
  def test_long_strings
    [["Message", "\x07"], ["Binary string", "\x05"]].each do |label, type|
      name = capture([frame(1, "#{type}\x76#{'y' * 118}"), frame(2, "#{type}\x77#{'y' * 119}")])
      lines = Tshark.run(name, "-V", "-O", "vorn", *Tshark::DECODE_AS).lines.grep(/\A *#{label}: /).map(&:strip)
      check("#{label}: 120 bytes", "#{label}: \"#{'y' * 118}\"", lines.first)
      check("#{label}: one more", "#{label}: \"#{'y' * 119}...", lines.last)
    end
    { "string" => ["\x07", 1], "symbol" => ["\x06", 1], "binary" => ["\x05", 2] }.each do |field, (type, digits)|
      [[1 << 20, "\x80\x80\x40"], [(1 << 20) + 1, "\x81\x80\x40"]].each do |size, length|
        name = capture(PcapWriter.cut(frame(1, type.b + length.b + "y" * size), 60_000))
        shown = Tshark.streams(name, %W[vorn.value.#{field} vorn.message vorn.error], *Tshark::DECODE_AS)[0]
        what = "#{field} of #{size} bytes"
        check("#{what}: its field", [digits << 20], shown["vorn.value.#{field}"].map(&:bytesize))
        check("#{what}: the message", [[size + 2], []], [shown["vorn.message"].map(&:bytesize), shown["vorn.error"]])
      end
    end
  end

  # Payloads beyond the limit are skipped; the frames after them are found.
  def test_long_payloads
    long = frame(1, "\xA5\x01\0\0\0\0\0\0".b * 250_000)
    stream = long + frame(2, "\x82".b) + long + frame(3, "\x83", 12)
    [[1400], [60_000], [3, 60_000], [8, 60_000], [7, 1, 1, 60_000]].each do |sizes|
      name = capture(PcapWriter.cut(stream, *sizes))
      [[], ["-2"]].each do |options|
        options += ["-o", "vorn.max_frame:1"]
        shown = Tshark.streams(name, MEANS, *Tshark::DECODE_AS, *options)[0]
        label = "#{sizes} #{options.join(' ')}"
        check("#{label}: frames", %w[1 2 1 3], shown["vorn.seq"])
        check("#{label}: messages", %w[2 3], shown["vorn.message"])
        check("#{label}: no bytes taken for garbage", [[], []], shown.values_at("vorn.skipped", "vorn.error"))
      end
    end
    name = capture(PcapWriter.cut(long[0, 1_900_000], 60_000), [frame(4, "\x84".b)], [[:server, frame(5, "\x85".b)]])
    shown = Tshark.streams(name, %w[vorn.seq], *Tshark::DECODE_AS, "-o", "vorn.max_frame:1")
    check("of its own connection only", [%w[1], %w[4], %w[5]], shown.sort.map { |_, fields| fields["vorn.seq"] })
    name = capture(PcapWriter.cut(stream, 60_000))
    shown = Tshark.streams(name, %w[vorn.seq vorn.messages], *Tshark::DECODE_AS)[0]
    check("below the limit: reassembled", [%w[1 2 1 3], %w[100000 1 100000 1]], shown.values)
  end

  # Work and text are bounded, whatever the peer sends.
  def test_hostile_streams
    segments = ->(bytes) { PcapWriter.cut(bytes, 60_000) }
    {
      "a length of 2 GiB" => ["\xA5\x01\0\1\x7F\xFF\xFF\xFF".b + "\x0A".b * 2_000_000, nil],
      "a payload of nils" => [frame(1, "\0".b * 8_000_000), 100_000],
      "an endless integer" => [frame(1, "\xFF".b * 8_000_000), 0],
      "an endless length" => [frame(1, "\x07".b + "\xFF".b * 8_000_000), 0],
      "open arrays" => [frame(1, "\x0A".b * 8_000_000), 0],
      "empty hashes" => [frame(1, "\x08\x09".b * 4_000_000), 100_000],
      "start markers" => ["\xA5".b * 1_000_000, nil],
      "empty frames" => [frame(1, "") * 100_000, 0],
      "an array of strings" => [frame(1, "\x0A" + ("\x07\x7F".b + "y" * 127) * 50_000 + "\x0B"), 1],
      "long keys" => [frame(1, "\x08".b + Array.new(60) { |i| long_key(i) + "\0" }.join + "\x09"), 1],
      "long strings, deep in hashes" => [frame(1, (deep_string * 60)), 60],
      "a long string" => [frame(1, "\x07".b + [0x80, 0x80, 0x80, 4].pack("C*") + "x" * 8_388_608), 1]
    }.each do |what, (stream, messages)|
      name = capture(segments.(stream))
      before = Process.times
      shown = Tshark.streams(name, %w[vorn.messages vorn.cut vorn.message], *Tshark::DECODE_AS)[0]
      seconds = Process.times.cutime - before.cutime
      puts format("  %-28s %4.1f s of CPU time", what, seconds)
      longest = shown["vorn.message"].map(&:bytesize).max.to_i
      check("#{what}: #{longest} bytes of text", true, longest < 9 << 20)
      check("#{what}: in time", true, seconds < 15)
      check("#{what}: said to be cut", true, shown["vorn.cut"].any?) if messages && what !~ /frames|arrays|strings\z/
      check("#{what}: messages", messages, shown["vorn.messages"].map(&:to_i).inject(:+)) if messages
    end
  end

  # Without reassembly, and with truncated packets.
  def test_incomplete_captures
    stream = frame(1, "\x07\x7F" + "x" * 127) + frame(2, "\x82".b) + frame(3, "\x83".b)
    name = capture([stream[0, 50], stream[50..-1]])
    off = ["-o", "tcp.desegment_tcp_streams:FALSE"]
    shown = Tshark.streams(name, MEANS + %w[vorn.continued vorn.cut], *Tshark::DECODE_AS, *off)[0]
    check("no reassembly: frames", %w[1 2 3], shown["vorn.seq"])
    check("no reassembly: messages", %w[2 3], shown["vorn.message"])
    check("no reassembly: what belongs to the first", %w[87], shown["vorn.continued"])
    check("no reassembly: said so", 1, shown["vorn.cut"].size)
    name = path("snap.pcap")
    File.open(name, "wb") { |file| PcapWriter.new(file, 90).connection([stream[0, 137], stream[137..-1]]) }
    shown = Tshark.streams(name, MEANS + %w[vorn.cut], *Tshark::DECODE_AS)[0]
    check("packets cut short: frames", %w[1 2 3], shown["vorn.seq"])
    check("packets cut short: messages", %w[2 3], shown["vorn.message"])
    check("packets cut short: said so", 1, shown["vorn.cut"].size)
  end

  # Real connections, segmented by the system.
  def test_loopback
    server = TCPServer.new("127.0.0.1", 0)
    random = Random.new(7)
    streams = Array.new(3) { |i| Array.new(30) { random_frame(random) }.join + frame(i, "\x07\x90\x4E" + "z" * 10_000) }
    streams << frame(9, Vectors.bytes("05 C0 84 3D") + "q" * 1_000_000) + frame(10, "\x81".b, 12)
    name = path("loopback.pcap")
    reason = capture_loopback(server, streams, name, random)
    return puts("  not captured on loopback: #{reason}") if reason
    port = server.addr[1]
    shown = Tshark.streams(name, MEANS, "-d", "tcp.port==#{port},vorn")
    check("connections", streams.size, shown.size)
    streams.each_with_index do |stream, i|
      check("connection #{i}", meaning_of(stream), summary(shown[i]))
    end
    check("messages of the last", [MessageText.quoted("q" * 1_000_000), "1"], shown[3]["vorn.message"])
  ensure
    server.close if server
  end

  private

  # Writes the connections, each a list of segments, and returns the file's name.
  def capture(*connections)
    path("#{@captures += 1}.pcap").tap do |name|
      PcapWriter.open(name) { |pcap| connections.each { |segments| pcap.connection(segments) } }
    end
  end

  def frame(seq, payload, layout = 8)
    head = if layout == 8 then [0xA5, 1, seq, payload.bytesize].pack("CCnN")
           else
             [0xA5, 0, seq, payload.bytesize >> 16, payload.bytesize & 0xFFFF, 0xDEADBEEF, 0x5A].pack("CCnCnNC")
           end
    head + payload.b
  end

  # Native extraction of a row of values.txt: symbols are strings.
  def extracted(row)
    ruby, _, variant, as_strings = row[2..5].map { |cell| Vectors.expand(cell) }
    return as_strings unless as_strings == "="
    variant == "=" ? ruby : variant
  end

  def field_of(row)
    type = Vectors.bytes(row[1]).getbyte(0)
    "vorn.value." + (type >= 0x80 ? "int" : %w[nil bool bool float double binary symbol string][type])
  end

  # The value of a field: booleans as in tshark 4.4, doubles by their bits, floats as doubles. Nil: texts that tshark
  # repairs.
  def expected_value(row)
    meaning = Vectors.expand(row[2])
    case meaning
    when "nil" then nil
    when "true" then "True"
    when "false" then "False"
    when /\A-?\d+\z/ then meaning
    when /\Ab:(.*)/ then $1.downcase
    when /\A[us]:((?:[2-7]\h)*)\z/ then Hex.decode($1)
    end
  end

  def payload_of(row)
    bytes = Vectors.bytes(row[1])
    row[2] == "all" ? bytes : bytes.byteslice(0, row[2].to_i)
  end

  def check_frame(what, row, shown)
    error = FRAME_ERRORS.include?(row.state) ? row.state : nil
    check("#{what}: error", [error].compact, shown["vorn.error"].first(1) & FRAME_ERRORS)
    return check("#{what}: no frame", [], shown["vorn.seq"]) if row.state == "incomplete"
    check("#{what}: layout", row.layout.to_s, shown["vorn.layout"].first)
    return check("#{what}: nothing else", [], shown["vorn.seq"]) if error == "Bad Header CRC"
    check("#{what}: seq", row.seq.to_s, shown["vorn.seq"].first)
    check("#{what}: length", row.data_len.to_s, shown["vorn.length"].first)
    return unless row.complete?
    check("#{what}: payload", row.payload, Hex.decode(shown["vorn.payload"].first.to_s))
    skipped = row.stream.index("\xA5".b)
    check("#{what}: skipped", true, shown["vorn.skipped"].map(&:to_i).inject(0, :+) >= skipped)
  end

  # The summary of a stream that tshark and the model can both give.
  def summary(shown)
    {
      seqs: shown["vorn.seq"], lengths: shown["vorn.length"], layouts: shown["vorn.layout"],
      errors: shown["vorn.error"] & FRAME_ERRORS, skipped: shown["vorn.skipped"].map(&:to_i).inject(0, :+)
    }
  end

  def meaning_of(stream)
    frames, skipped = StreamModel.read(stream)
    {
      seqs: frames.map(&:seq).compact.map(&:to_s), lengths: frames.map(&:length).compact.map(&:to_s),
      layouts: frames.map(&:layout).map(&:to_s), errors: frames.map(&:error).compact.uniq, skipped: skipped
    }
  end

  def sample_stream
    "ab".b + frame(0xA5A5, Vectors.bytes("08 05 01 6B A5 09 81")) + frame(2, "", 12) + frame(3, "\xA5\x00".b, 12) +
      "\0\0\0".b + frame(4, "\x81", 12).tap { |bytes| bytes.setbyte(11, 0x59) } + frame(5, "") +
      frame(6, "\x81\x82", 12).tap { |bytes| bytes.setbyte(8, 0) } + frame(7, "\x07\x03abc")
  end

  def long_key(number)
    "\x07\x80\x80\x40".b + number.chr + "\xFF".b * 1_048_575
  end

  def deep_string
    Vectors.bytes("(63:08 05 01 6B) 07 80 80 3C") + "\xFF".b * 983_040 + "\x09".b * 63
  end

  def random_frame(random)
    @values ||= Vectors.table("values.txt", 8).map { |row| Vectors.bytes(row[1]) }.select { |b| b.bytesize < 60 }
    payload = Array.new(random.rand(4)) { @values[random.rand(@values.size)] }.join
    frame(random.rand(65_536), payload, [8, 12][random.rand(2)])
  end

  # A frame of type bytes in any order, with few other bytes.
  def odd_frame(random)
    payload = Array.new(random.rand(60)) { random.rand(4) == 0 ? random.rand(256) : random.rand(13) }.pack("C*")
    frame(random.rand(65_536), payload, [8, 12][random.rand(2)])
  end

  # Pairs of a segment and its offset in the stream.
  def shuffle(segments, random)
    at = 0
    placed = segments.map { |bytes| [bytes, (at += bytes.bytesize) - bytes.bytesize] }
    random.rand(3).times do
      i = random.rand(placed.size + 1)
      case random.rand(4)
      when 0 then placed.delete_at(i)
      when 1 then placed.insert(i, placed[random.rand(placed.size)]) unless placed.empty?
      when 2 then placed.insert(random.rand(placed.size), placed.delete_at(i)) if i < placed.size
      else placed[i] = [placed[i][0], placed[i][1] + random.rand(20) - 10] if i < placed.size
      end
    end
    placed
  end

  # Limits how much one run of tshark reads.
  def in_batches(count)
    while count > 0
      yield [count, 500].min
      count -= 500
    end
  end

  def mutate(stream, random)
    stream = stream.dup
    random.rand(5).times do
      at = random.rand(stream.bytesize)
      case random.rand(3)
      when 0 then stream.setbyte(at, random.rand(256))
      when 1 then stream = stream.byteslice(0, at) + stream.byteslice(at + 1 + random.rand(4)..-1).to_s
      else stream = stream.byteslice(0, at) + random.bytes(random.rand(6)) + stream.byteslice(at..-1)
      end
    end
    stream
  end

  # The number of packets that the dissector handled, or that the filter in the options matches.
  def found(bytes, *options)
    Tshark.packets(capture([bytes]), %w[frame.number], "-Y", "vorn", *options).size
  end

  # Sends each stream over its own connection while dumpcap records. Returns nil, or why there is no capture.
  def capture_loopback(server, streams, name, random)
    loopback = RUBY_PLATFORM.include?("linux") ? "lo" : "lo0"
    err, err_in = IO.pipe
    # A buffer that holds everything, so that no packet is dropped on a busy machine.
    dumpcap = Process.spawn("dumpcap", "-q", "-B", "64", "-P", "-i", loopback, "-f", "tcp port #{server.addr[1]}",
                            "-w", name, err: err_in, out: File::NULL)
    err_in.close
    said = [""]
    Timeout.timeout(60) { said << err.readline.chomp until said.last.start_with?("File:") || err.eof? }
    return said.grep(/\Adumpcap: /).last || "dumpcap ended" unless said.last.start_with?("File:")
    streams.each { |stream| send_in_pieces(server, stream, random) }
    # Delayed packets must arrive before dumpcap ends.
    Timeout.timeout(60) { sleep 0.1 until closed?(name, streams) }
    nil
  rescue Errno::ENOENT
    "there is no dumpcap"
  ensure
    if dumpcap
      Process.kill(:INT, dumpcap)
      Process.wait(dumpcap)
    end
  end

  # Whether the capture shows both ends of all connections closing.
  def closed?(name, streams)
    closing, = Open3.capture2("tshark", "-n", "-r", name, "-Y", "tcp.flags.fin == 1", err: File::NULL)
    closing.lines.size >= 2 * streams.size
  end

  def send_in_pieces(server, stream, random)
    client = TCPSocket.new("127.0.0.1", server.addr[1])
    client.setsockopt(Socket::IPPROTO_TCP, Socket::TCP_NODELAY, 1)
    peer = server.accept
    reader = Thread.new { peer.read }
    PcapWriter.cut(stream, *Array.new(60) { 1 + random.rand(40) }, 100_000).each { |piece| client.write(piece) }
    client.close
    raise "the connection lost bytes" unless reader.value.b == stream
    peer.close
  end
end
