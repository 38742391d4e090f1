# frozen_string_literal: true

# Runs vorn-inspect as users do, and the unit tests of its parts. BUILD is their build folder.
require "json"
require "open3"
require "pty"
require "shellwords"
require "timeout"
require_relative "../support/hex"
require_relative "../support/vectors"
require_relative "json_text"
require_relative "make_pcap"
require_relative "tool_test_case"
require_relative "tshark"

class InspectTest < ToolTestCase
  FRAME_ERRORS = ["Bad Header CRC", "Bad Payload Data CRC", "Payload size exceeds soft limit"].freeze
  Result = Struct.new(:out, :err, :status)

  def setup
    super
    @build = ENV.fetch("BUILD")
    program = File.join(@build, "tools/inspect/vorn-inspect")
    @program = [program, program] # run without a shell
    @quoted = Shellwords.escape(program)
  end

  # The unit tests; the scanner's include 10,000 generated captures.
  def test_parts
    out, status = Open3.capture2e(File.join(@build, "test/tools/inspect_test"))
    puts out[/^\d+ captures, .*/]
    assert status.success?, out
  end

  def test_command_line
    help = inspector("--help")
    check("--help", [0, ""], [help.status, help.err])
    %w[--json --hex --stats --values --follow --max-length].each { |name| check(name, true, help.out.include?(name)) }
    version = File.read(File.expand_path("../../../lib/vorn_rpc/version.rb", __FILE__))[/"([\d.]+)"/, 1]
    check("--version", ["vorn-inspect #{version}\n", 0], inspector("--version").values_at(0, 2))
    [%w[--bogus], %w[a b], %w[--hex --stats], %w[--max-length 3G], %w[--max-length -1], %w[--max-length],
     [path("missing")], [@dir]].each do |arguments|
      result = inspector(*arguments)
      check(arguments.join(" "), [2, "", false], [result.status, result.out, result.err.empty?])
    end
    full = with_shell("--stats < /dev/null > /dev/full")
    check("a full disk", [2, true], [full.status, full.err.include?("No space left")])
    check("nothing", ["", "", 0], inspector("", stdin: "").to_a)
  end

  def test_sizes
    wrong = "a number of bytes, or one with K, M or G, is expected"
    most = "at most 2147483647 bytes"
    refused = { wrong => ["5X", "K", "1KB", "1.5M", "0x10", " 1"],
                most => %w[2147483648 2097152k 2048M 2G 99999999999999999999] }
    refused.flat_map { |text, sizes| sizes.map { |size| [size, text] } }.each do |size, text|
      result = inspector("--max-length", size, stdin: "")
      check(size, [2, "vorn-inspect: --max-length: #{text} (see --help)\n"], [result.status, result.err])
    end
    exactly, more = [1024, 1025].map { |length| frame(1, "\0" * length) }
    %w[1024 1K 1k].each do |size|
      check("#{size}: so much", 0, inspector("--max-length", size, stdin: exactly).status)
      check("#{size}: more", 1, inspector("--max-length", size, stdin: more).status)
    end
    %w[1M 1G 2097151K 2147483647].each do |size|
      check(size, 0, inspector("--max-length", size, stdin: more).status)
    end
  end

  def test_text
    stream = frame(7, Vectors.bytes("81 02")) + "xyz" + bad_header(8) + frame(9, "\x82\x0C".b, 12) + "A"
    expected = <<-TEXT.gsub(/^ {6}/, "")
      offset 0  layout 8  seq 7  length 2
        1
        true
      ! skipped 16 bytes at offset 10
      !   offset 13: Bad Header CRC (layout 12)
      offset 26  layout 12  seq 9  length 2
        2
      !   offset 40: VObject::deserialize: unrecognized protocol transport type
      ! skipped 1 byte at offset 40
      !   no start marker
    TEXT
    ways(stream).each { |way, result| check(way, [expected, "", 1], result.to_a) }
    hex = "  00000000  a5 01 00 07 00 00 00 02  81 02                    |..........|\n"
    check("--hex", true, inspector("--hex", stdin: stream).out.include?("length 2\n#{hex}  1\n"))
    check("all is well", 0, inspector(stdin: stream[0, 10]).status)
  end

  # The fields of every frame, and values that can be rebuilt.
  def test_json
    rows = Vectors.table("values.txt", 8)
    stream = rows.each_with_index.map { |row, seq| frame(seq, Vectors.bytes(row[1]), seq.odd? ? 12 : 8) }.join
    lines = json(stream, "--hex")
    check("frames", rows.size, lines.size)
    check("all bytes", stream, Hex.decode(lines.map { |line| line["hex"] }.join))
    offset = 0
    rows.zip(lines).each_with_index do |(row, line), seq|
      layout, length = seq.odd? ? 12 : 8, Vectors.bytes(row[1]).bytesize
      check("#{row.first}: header", ["frame", offset, layout, seq, length],
            line.values_at("type", "offset", "layout", "seq", "length"))
      offset += layout + length
      meaning = extracted(row)
      if meaning.start_with?("!")
        check(row.first, [[], true], [line["messages"], line["fault"]["reason"].start_with?("VObject::")])
      else
        check(row.first, [[meaning.gsub(/[bus]:/, "t:")], nil],
              [line["messages"].map { |value| JsonText.notation(value) }, line["fault"]])
      end
    end
  end

  def test_frame_table
    Vectors.frames.each do |row|
      next if row.stream.bytesize != row.consumed # bytes after a frame are evidence for or against it
      first = json(row.stream).map { |line| line["type"] == "frame" ? line : line["failed_starts"].first }.compact.first
      if row.complete? && row.stream.start_with?("\xA5".b) && row.data_len + row.layout == row.consumed
        check(row.name, [0, row.layout, row.seq, row.data_len], first.values_at("offset", "layout", "seq", "length"))
      elsif FRAME_ERRORS.include?(row.state)
        check(row.name, row.state, first["reason"])
      end
    end
  end

  def test_values
    stream = Vectors.bytes("81 0A 82 0B 08 81 81 09 85 0C 80")
    lines = json(stream, "--values")
    check("--json", [["value", 0, 1], ["value", 1, [2]], ["failed_value", 4, nil], ["value", 8, 5],
                     ["failed_value", 9, nil]], lines.map { |line| line.values_at("type", "offset", "value") })
    result = inspector("--values", stdin: stream)
    check("text", ["offset 0  1\noffset 1  [2]\n", 1], [result.out.lines.first(2).join, result.status])
    check("all is well", 0, inspector("--values", stdin: stream[0, 4]).status)
    check("a limit", 1, inspector("--values", "--max-length", "2", stdin: stream[0, 4]).status)
    check("--stats", true, inspector("--values", "--stats", stdin: stream).out =~ /^values +3$/ ? true : false)
  end

  # Frames with --values get a hint; the output stays the same.
  def test_values_that_are_frames
    hint = "vorn-inspect: this looks like frames; try without --values\n"
    twelve = frame(1, "\x81".b, 12)
    { "a frame" => frame(1, "\x81".b), "an empty frame" => frame(1, ""), "12 bytes" => twelve, "many" => twelve * 1000,
      "the longest" => [0xA5, 1, 0, 64 << 20].pack("CCnN") }.each do |what, stream|
      result = inspector("--values", stdin: stream)
      check(what, hint, result.err)
      File.binwrite(path("frames"), stream)
      slow = shell("(head -c 3 #{quoted('frames')}; sleep 0.1; tail -c +4 #{quoted('frames')}) | #{@quoted} --values")
      check("#{what}, in pieces", [result.out, hint], [slow.out, slow.err])
    end
    no_frame = { "a number of two bytes" => "\xA5\x01".b, "cut off" => frame(1, "")[0, 7],
                 "12 bytes, cut off" => twelve[0, 11], "too long" => [0xA5, 1, 0, (64 << 20) + 1].pack("CCnN"),
                 "another layout byte" => "\xA5\x03".b + "\0" * 6,
                 "another start" => "\xA4\x01".b + "\0" * 6, "values first" => "\x81".b + frame(1, "") }
    [8, 11].each { |at| no_frame["wrong at #{at}"] = twelve.dup.tap { |bytes| bytes.setbyte(at, 1) } }
    no_frame.each { |what, stream| check(what, "", inspector("--values", stdin: stream).err) }
    check("frames as frames", "", inspector(stdin: frame(1, "")).err)
  end

  def test_stats
    seqs = [1, 2, 5, 5, 4, 65_535]
    stream = seqs.map { |seq| frame(seq, "\x81".b * (seq % 10), seq == 2 ? 12 : 8) }.join("")
    stats = json(stream + "xx" + bad_header(1), "--stats").first
    check("frames", { "8" => 5, "12" => 1, "overlapping" => 0 }, stats["frames"])
    check("messages", seqs.map { |seq| seq % 10 }.inject(:+), stats["messages"])
    check("skipped", { "ranges" => 1, "bytes" => 15 }, stats["skipped"])
    check("reasons", { "Bad Header CRC" => 1 }, stats["failed_starts"])
    check("sequence", [1, 2, 1, 2], stats["sequence"].values_at("gaps", "missing", "repeats", "returns"))
    check("sizes", [6, 22, 1, 5], stats["sizes"].values_at("count", "sum", "min", "max"))
    check("histogram", [[1, 1, 1], [2, 3, 1], [4, 7, 4]],
          stats["sizes"]["histogram"].map { |range| range.values_at("from", "to", "count") })
    text = inspector("--stats", stdin: stream).out
    ["frames                             6", "  5 is followed by 5 at offset", "1 gaps (2 numbers missing), 1 repeats",
     "          4 to 7                     4 ####"].each { |line| check(line, true, text.include?(line)) }
    rows = inspector("--stats", stdin: frame(1, "\x81".b) * 100 + frame(1, "\x81".b * 4)).out.scan(/^ .* to .*/)
    check("the most fills the width, the least is seen", [40, 0, 1], rows.map { |row| row.count("#") })
  end

  # Lines of 80 columns at most, and shorter ones in a narrower terminal.
  def test_stats_fit_the_terminal
    stream = frame(1, "\x81".b) * 100 + frame(1, "\x81".b * 4)
    { nil => 80, "" => 80, "wide" => 80, "0" => 80, "-1" => 80, "200" => 80, "80" => 80, "79" => 79, "60" => 60,
      "41" => 41, "40" => 41, "1" => 41 }.each do |columns, expected|
      out, = Open3.capture3({ "COLUMNS" => columns }, @program, "--stats", stdin_data: stream, binmode: true)
      rows = out.scan(/^ .* to .*/)
      check("COLUMNS=#{columns}", [expected, [expected - 40, 0, 1]],
            [rows.map(&:size).max, rows.map { |row| row.count("#") }])
    end
  end

  # No byte from a peer or in a file name may reach a terminal as a control character, and the text must be reversible.
  def test_controls
    marks = [0x7F, *0x80..0x9F, 0x061C, 0x200E, 0x200F, *0x2028..0x202E, *0x2066..0x2069]
    text = ((0..0x1F).to_a + marks).pack("U*")
    payload = Vectors.bytes("08 07") + short(text) + "\x07".b + short(text) + "\x07".b + short("b#{text}") + "\x05".b +
              short("\x9B\x1B\x7F".b) + "\x09".b
    wild = /[^ -~\n]/n
    [[payload, []], [payload, %w[--values]], ["\x0A\x81\x0C".b + text.b, []],
     [text.b, %w[--values]]].each do |bytes, options|
      stream = options.empty? ? frame(1, bytes) + bytes : bytes
      [%w[--json], %w[--hex], %w[--json --hex], %w[--stats], %w[--json --stats], []].each do |more|
        result = inspector(*options, *more, stdin: stream)
        check("#{(options + more).join(' ')}: nothing wild", [], (result.out + result.err).scan(wild).uniq)
      end
    end
    hash = { text => text, "b#{text}" => { "$bytes" => "9b1b7f" } }
    check("the same text", hash, json(payload, "--values").first["value"])
    check("the same text, in a frame", [hash], json(frame(1, payload)).first["messages"])
    name = "a\e[2J\u009B\u202E\x7F\n"
    [[path(name)], ["--#{name}"], ["a", name], ["--max-length", name], ["--json=#{name}"],
     [path("\x9B\x7F\e".b)]].each do |arguments|
      result = inspector(*arguments)
      check("#{arguments}: status", [2, ""], [result.status, result.out])
      check("#{arguments}: one line with the program's name", "", result.err.sub(/\Avorn-inspect: [ -~]+\n\z/, ""))
    end
  end

  def test_follow
    %w[INT TERM].each do |signal|
      File.binwrite(path("growing"), frame(1, "\x81".b))
      Open3.popen3(@program, "--follow", path("growing")) do |_, out, err, process|
        check("what is there", "offset 0  layout 8  seq 1  length 1\n  1\n", lines_of(out, 2))
        append("growing", frame(2, "\x82".b)[0, 5])
        append("growing", frame(2, "\x82".b)[5..-1])
        check("what is added, before anything follows", "offset 9  layout 8  seq 2  length 1\n  2\n", lines_of(out, 2))
        append("growing", frame(3, "\x83".b)[0, 8])
        sleep 0.3
        Process.kill(signal, process.pid)
        rest = Timeout.timeout(10) { out.read }
        check("ended by SIG#{signal}", true, rest.include?("offset 18: cut off by the end of the input"))
        check("status", [1, ""], [process.value.exitstatus, err.read])
      end
    end
  end

  def test_follow_ends
    check("a pipe ends", 0, inspector("--follow", stdin: frame(1, "")).status)
    File.binwrite(path("growing"), frame(1, "") * 100)
    Open3.popen3(@program, "--follow", path("growing")) do |_, out, err, process|
      lines_of(out, 1)
      out.close
      check("nobody reads", [0, ""], [Timeout.timeout(10) { process.value }.exitstatus, err.read])
    end
  end

  # When the file under the name is replaced, the program continues with the new file from its beginning.
  def test_follow_by_name
    File.binwrite(path("log"), frame(1, "") + frame(2, "\x81\x82".b)[0, 9])
    Open3.popen3(@program, "--follow", path("log")) do |_, out, err, process|
      check("at first", "offset 0  layout 8  seq 1  length 0\n", lines_of(out, 1))
      File.rename(path("log"), path("old"))
      check("renamed", said("is gone; waiting for a new file"), lines_of(err, 1))
      append("old", "\x82".b)
      check("the old one is still read", "offset 8  layout 8  seq 2  length 2\n  1\n  2\n", lines_of(out, 3))
      append("old", frame(3, "\x81\x82".b)[0, 9])
      Dir.mkdir(path("log"))
      check("a folder", said("is no longer a regular file; waiting for one"), lines_of(err, 1))
      Dir.rmdir(path("log"))
      check("gone again", said("is gone; waiting for a new file"), lines_of(err, 1))
      File.mkfifo(path("log")) if File.respond_to?(:mkfifo)
      lines_of(err, 1) if File.respond_to?(:mkfifo)
      File.binwrite(path("new"), frame(4, "\x81".b))
      File.rename(path("new"), path("log"))
      check("another", said("was replaced; reading the new file"), lines_of(err, 1))
      check("what the old one left unfinished, and the new one",
            "! skipped 9 bytes at offset 18\n" \
            "!   offset 18: cut off by the end of the input (layout 8, seq 3, length 2)\n" \
            "offset 0  layout 8  seq 4  length 1\n  1\n", lines_of(out, 4))
      File.truncate(path("log"), 0)
      check("shorter", said("was truncated; reading from its beginning"), lines_of(err, 1))
      append("log", frame(5, ""))
      check("from the beginning", "offset 0  layout 8  seq 5  length 0\n", lines_of(out, 1))
      File.truncate(path("log"), 0)
      check("shorter again", said("was truncated; reading from its beginning"), lines_of(err, 1))
      File.delete(path("log"))
      check("gone for good", said("is gone; waiting for a new file"), lines_of(err, 1))
      sleep 0.3
      Process.kill(:TERM, process.pid)
      check("ended", [1, "", ""], [Timeout.timeout(10) { process.value }.exitstatus, out.read, err.read])
    end
    File.binwrite(path("log"), frame(6, "") * 2)
    shorter = "vorn-inspect: standard input: was truncated; reading from its beginning\n"
    check("standard input", ["offset 0  layout 8  seq 6  length 0\n", [shorter] * 2], followed_input)
  end

  # A byte at a time, faster than the program reads, and a frame that never ends; each can be interrupted.
  def test_follow_growth
    bytes = frame(1, "\x81".b, 12) + "xy" + frame(2, "\x82\x83".b)
    { "bytes" => bytes.chars.map(&:b), "fast" => [frame(1, "\x81".b) * 100_000] * 20,
      "endless" => ["\xA5\x01\0\0\x03\xFF\xFF\xFF".b] + ["\x0A".b * 100_000] * 20 }.each do |what, parts|
      File.binwrite(path("growing"), "")
      Open3.popen3(@program, "--follow", path("growing")) do |_, out, err, process|
        reader = Thread.new { out.read }
        parts.each { |part| append("growing", part) && sleep(what == "fast" ? 0 : 0.01) }
        sleep 0.5
        check("#{what}: memory", true, resident(process.pid) < 64)
        Process.kill(:INT, process.pid)
        ended = [Timeout.timeout(20) { process.value }.exitstatus, err.read]
        expected, shown = inspector(path("growing")).out, reader.value
        # With more to read, the signal may have come in the middle of a frame.
        shown = shown.sub(/^! skipped.*\z/m, "") if what == "fast"
        check("#{what}: ends", what == "fast" ? "" : [1, ""], what == "fast" ? ended[1] : ended)
        check("#{what}: what was shown", true, what == "fast" ? expected.start_with?(shown) : expected == shown)
      end
    end
  end

  # A stalled reader must not keep the program from handling signals.
  def test_follow_stalled_reader
    File.binwrite(path("growing"), frame(1, "\x81".b) * 100_000)
    %w[INT TERM].each do |signal|
      Open3.popen3(@program, "--follow", path("growing")) do |_, out, err, process|
        lines_of(out, 1)
        sleep 0.5
        Process.kill(signal, process.pid)
        ended = process.join(10)
        check("SIG#{signal} while nobody reads", true, !ended.nil?)
        Process.kill(:KILL, process.pid) unless ended
        check("status", [0, ""], [process.value.exitstatus, err.read])
      end
    end
  end

  # Output appears at once, and a reader that closes its pipe causes no message.
  def test_pipes
    Open3.popen3(@program) do |input, out, err, process|
      input.binmode.write(frame(1, "\x81".b))
      input.flush
      check("shown at once", "offset 0  layout 8  seq 1  length 1\n  1\n", lines_of(out, 2))
      out.close
      check("nobody reads, nothing comes", [0, ""], [Timeout.timeout(10) { process.value }.exitstatus, err.read])
    end
    File.binwrite(path("long"), frame(1, "\x81".b) * 200_000)
    check("head", ["offset 0  layout 8  seq 1  length 1\n", "", "0\n"],
          shell("{ #{@quoted} #{quoted('long')}; echo $? >&3; } 3>#{quoted('status')} | head -1").values_at(0, 1) +
          [File.read(path("status"))])
  end

  def test_progress
    File.open(path("large"), "wb") { |file| 64.times { file.write(frame(1, "\x81\x00\x02".b * 10) * 27_000) } }
    bar = on_terminal("exec #{@quoted} --stats #{quoted('large')} > /dev/null")
    check("a bar", true, bar =~ /\[#* +\] +\d+ %  \d+ of \d+ MiB/ ? true : false)
    check("which goes away", true, bar.end_with?("\r\e[K"))
    check("not for a pipe", "", on_terminal("cat #{quoted('large')} | #{@quoted} --stats > /dev/null"))
    File.binwrite(path("small"), frame(1, ""))
    check("not for a small file", "", on_terminal("exec #{@quoted} --stats #{quoted('small')} > /dev/null"))
    check("not without a terminal", "", inspector("--stats", path("large")).err)
  end

  # Memory must not depend on the length of a capture.
  def test_memory
    clean = frame(1, "\x08\x05\x02id\x81\x09".b) * 60_000
    check("a long capture", true, peak(Array.new(100) { clean }) < 16)
    check("noise", true, peak(Array.new(100) { "\xA5".b * 1_000_000 }) < 16)
    long = "\xA5\x01\0\0\x03\xFF\xFF\xFF".b * 125_000 # each announces 64 MiB
    check("long payloads", true, peak(Array.new(100) { long }, "--stats") < 300)
  end

  # The manual page promises a factor of 12.
  def test_memory_of_messages
    size = 4_000_000
    { "empty hashes" => "\x08\x09".b, "empty arrays" => "\x0A\x0B".b, "strings" => "\x05\x01\xFF".b,
      "hashes" => "\x08\x05\0\0\x09".b, "nested" => "\x0A".b * 62 + "\x0B".b * 62,
      "doubles" => "\x04\xFF\xEF".b + "\xFF".b * 6 }.each do |what, member|
      check_memory(what, "\x0A".b + member * (size / member.bytesize) + "\x0B".b)
    end
    check_memory("one hash", "\x08".b + "\x05\0\0".b * (size / 3) + "\x09".b)
    check_memory("one string", Vectors.bytes("05 80 92 F4 01") + "\x01".b * size)
  end

  # On damaged captures the program must succeed and show the undamaged frames.
  def test_mutated
    random = Random.new(20_240_607)
    Integer(ENV.fetch("VORN_CAPTURES", 1000)).times do |n|
      frames = Array.new(2 + random.rand(10)) { |seq| random_frame(seq, random) }
      stream, kept = damage(frames, random)
      result = inspector("--json", stdin: stream)
      lines = result.out.lines.map { |line| JSON.parse(line) }
      good = lines.all? { |line| %w[frame skipped].include?(line["type"]) } && result.err.empty? &&
             result.status == (lines.any? { |l| l["type"] == "skipped" || l["overlaps"] || l["fault"] } ? 1 : 0)
      check("capture #{n}: an answer", true, good)
      shown = lines.select { |line| line["type"] == "frame" }
      lost = kept.reject do |offset, _|
        shown.any? { |line| line["offset"] == offset } || hidden?(shown, stream, offset)
      end
      check("capture #{n}: #{Hex.encode(stream)}", [], lost)
    end
  end

  # Compares tshark with the dissector and the inspector on the stream that tshark extracts from the same capture.
  def test_with_tshark
    streams = tshark_streams
    name = path("capture.pcap")
    PcapWriter.open(name) { |pcap| streams.each { |bytes| pcap.connection(PcapWriter.cut(bytes, 700, 1400)) } }
    fields = %w[vorn.layout vorn.seq vorn.length vorn.message vorn.error]
    shown = Tshark.streams(name, fields, *Tshark::DECODE_AS)
    streams.each_with_index do |bytes, number|
      stream = number < 5 ? followed(name, number) : bytes
      check("connection #{number}: the stream", bytes, stream)
      check("connection #{number}", fields_of(json(stream)), fields.map { |field| shown[number][field] })
    end
  end

  private

  def inspector(*arguments, stdin: "")
    out, err, status = Open3.capture3(@program, *arguments.reject(&:empty?), stdin_data: stdin, binmode: true)
    Result.new(out, err, status.exitstatus)
  end

  def shell(command)
    out, err, status = Open3.capture3("bash", "-c", command, binmode: true)
    Result.new(out, err, status.exitstatus)
  end

  # A quoted file name for a shell.
  def quoted(name)
    Shellwords.escape(path(name))
  end

  def with_shell(arguments)
    shell("#{@quoted} #{arguments}")
  end

  # All ways to pass the same input.
  def ways(stream)
    File.binwrite(path("stream"), stream)
    { "file" => inspector(path("stream")), "pipe" => inspector(stdin: stream), "dash" => inspector("-", stdin: stream),
      "redirection" => with_shell("< #{quoted('stream')}") }
  end

  def json(stream, *options)
    inspector("--json", *options, stdin: stream).out.lines.map { |line| JSON.parse(line, max_nesting: 200) }
  end

  def append(name, bytes)
    File.open(path(name), "ab") { |file| file.write(bytes) }
  end

  def lines_of(io, count)
    Timeout.timeout(60) { Array.new(count) { io.gets }.join }
  end

  # The output of a command on a terminal as its standard error.
  def on_terminal(command)
    terminal, slave = PTY.open
    pid = Process.spawn("bash", "-c", command, err: slave, out: File::NULL)
    slave.close
    text = "".b
    begin
      loop { text << terminal.readpartial(4096) }
    rescue EOFError, Errno::EIO
      Process.wait(pid)
    end
    text
  ensure
    terminal.close
  end

  def short(text)
    size = text.bytesize
    (size > 0x7F ? [size & 0x7F | 0x80, size >> 7] : [size]).pack("C*") + text.b
  end

  def said(what)
    "vorn-inspect: #{path('log')}: #{what}\n"
  end

  # The first line that --follow shows of standard input, and its messages about a file that is truncated twice.
  def followed_input
    Open3.popen3("exec #{@quoted} --follow < #{quoted('log')}") do |_, out, err, process|
      first = lines_of(out, 2).lines.first
      said = Array.new(2) do
        File.truncate(path("log"), 0)
        lines_of(err, 1).tap do
          append("log", frame(7, ""))
          lines_of(out, 1)
        end
      end
      Process.kill(:TERM, process.pid)
      return [first, said]
    end
  end

  # Waits until the program is idle.
  def settle(pid)
    Timeout.timeout(120) do
      readings = []
      until readings.size > 3 && readings.last(4).uniq.size == 1 && readings.last.first == "S"
        sleep 0.05
        readings << File.read("/proc/#{pid}/stat")[/\) (.*)/, 1].split.values_at(0, 11, 12)
      end
    end
  end

  def resident(pid)
    Integer(File.read("/proc/#{pid}/status")[/VmHWM:\s+(\d+)/, 1]) / 1024.0
  end

  def check_memory(what, value)
    [%w[--hex], %w[--json --hex], %w[--stats]].each do |options|
      [[[frame(1, value)], options], [[value], options + %w[--values]]].each do |parts, all|
        times = peak(parts, *all) * 1_048_576 / value.bytesize
        check("#{what} #{all.join(' ')}: #{times.round(1)} times", true, times < 12)
      end
    end
  end

  def peak(parts, *options)
    Open3.popen3(@program, *options) do |input, out, _, process|
      reader = Thread.new { IO.copy_stream(out, File::NULL) }
      parts.each { |part| input.binmode.write(part) }
      input.flush
      settle(process.pid)
      mib = resident(process.pid)
      input.close
      reader.join
      puts format("  peak %.1f MiB after %d MB", mib, parts.map(&:bytesize).inject(:+) / 1_000_000)
      mib
    end
  end

  def frame(seq, payload, layout = 8)
    head = if layout == 8 then [0xA5, 1, seq, payload.bytesize].pack("CCnN")
           else
             [0xA5, 0, seq, payload.bytesize >> 16, payload.bytesize & 0xFFFF, 0xDEADBEEF, 0x5A].pack("CCnCnNC")
           end
    head + payload.b
  end

  def bad_header(seq)
    frame(seq, "\x81".b, 12).tap { |bytes| bytes.setbyte(11, 0) }
  end

  # Native extraction of a row of values.txt: symbols are strings.
  def extracted(row)
    ruby, _, variant, as_strings = row[2..5].map { |cell| Vectors.expand(cell) }
    return as_strings unless as_strings == "="
    variant == "=" ? ruby : variant
  end

  # Short payloads that native extraction can read.
  def readable
    @readable ||= Vectors.table("values.txt", 8).reject { |row| extracted(row).start_with?("!") }
                         .map { |row| Vectors.bytes(row[1]) }.select { |bytes| bytes.bytesize < 60 }
  end

  def random_frame(seq, random)
    frame(seq, Array.new(random.rand(4)) { readable[random.rand(readable.size)] }.join, [8, 12][random.rand(2)])
  end

  # Damages some frames and inserts bytes between them. Returns the stream, and offset and size of the intact frames.
  def damage(frames, random)
    stream, kept = "".b, []
    frames.each do |bytes|
      stream << random.bytes(1 + random.rand(9)) if random.rand(8) == 0
      if random.rand(3) == 0
        bytes = bytes.dup
        at = random.rand(bytes.bytesize)
        case random.rand(4)
        when 0 then bytes.setbyte(at, bytes.getbyte(at) ^ (1 << random.rand(8)))
        when 1 then bytes.setbyte(4 + random.rand(4), bytes.getbyte(4) ^ (1 + random.rand(255)))
        when 2 then bytes = bytes.byteslice(0, at)
        else bytes = bytes.byteslice(0, at) + random.bytes(1 + random.rand(5)) + bytes.byteslice(at + 1..-1).to_s
        end
      else
        kept << [stream.bytesize, bytes.bytesize]
      end
      stream << bytes
    end
    [stream, kept]
  end

  # Whether the offset is inside a frame that was read to its end and is followed by another, or by the end.
  def hidden?(shown, stream, offset)
    shown.any? do |line|
      last = line["offset"] + line["layout"] + line["length"]
      line["offset"] < offset && offset < last && !line["fault"] && [nil, 0xA5].include?(stream.getbyte(last))
    end
  end

  # Streams on which a receiver and the inspector agree: the damaged parts have no start markers, and the
  # next frame can be read.
  def tshark_streams
    random = Random.new(4711)
    faults = Vectors.table("faults.txt", 8).select { |row| row[3] == "64" && row[2] == "all" && row[1] != "-" }
    faults = faults.map { |row| Vectors.bytes(row[1]) }
    faults = faults.select { |bytes| bytes.bytesize < 1000 && !bytes.include?("\xA5".b) }
    values = Vectors.table("values.txt", 8).map { |row| Vectors.bytes(row[1]) }
    clean = [values.each_with_index.map { |bytes, seq| frame(seq, bytes, seq.odd? ? 12 : 8) }.join,
             faults.each_with_index.map { |bytes, seq| frame(seq, bytes) + frame(seq, "\x81".b, 12) }.join]
    word = frame(8, "\x82\x83".b, 12).tap { |bytes| bytes.setbyte(9, 0) }
    parts = [bad_header(7), word, "between", frame(6, "\x81\x0C\x82".b), "\0".b * 20]
    clean + Array.new(200) do
      Array.new(1 + random.rand(12)) do |seq|
        (random.rand(3) == 0 ? parts[random.rand(parts.size)] : "".b) + random_frame(seq, random)
      end.join
    end
  end

  # The client's side of a connection, extracted as the manual page describes.
  def followed(capture, number)
    text = Tshark.run(capture, "-q", "-z", "follow,tcp,raw,#{number}")
    Hex.decode(text.lines.grep(/\A\h+$/).map(&:chomp).join)
  end

  # layout, seq, length, message and error, in tshark's form.
  def fields_of(lines)
    headers = lines.reject { |line| line["overlaps"] }
                   .map { |line| line["type"] == "frame" ? [line] : line["failed_starts"] }.flatten
    errors = headers.map { |header| header["reason"] || (header["fault"] || {})["reason"] }.compact
    [headers.map { |header| header["layout"].to_s }, headers.map { |header| header["seq"] }.compact.map(&:to_s),
     headers.map { |header| header["length"] }.compact.map(&:to_s),
     headers.map { |header| header["messages"] || [] }.flatten(1).map { |value| JsonText.text(value) },
     errors.map { |reason| reason.sub(/\AVObject::\w+: /, "") }]
  end
end
