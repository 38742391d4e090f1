# frozen_string_literal: true

require "fileutils"
require "open3"
require "tmpdir"

# Runs tshark with the dissector, isolated from the user's plugins and configuration.
module Tshark
  SCRIPT = File.expand_path("../../../tools/wireshark/vorn.lua", __FILE__)
  DECODE_AS = ["-d", "tcp.port==40700,vorn"].freeze
  SEPARATOR = "\x1f" # in no field: control characters are escaped

  # As root, tshark 4.4 silently loads no script.
  UNPRIVILEGED = Process.uid.zero? ? %w[setpriv --reuid=65534 --regid=65534 --clear-groups].freeze : [].freeze

  module_function

  # A folder for the configuration, and for files that the unprivileged tshark must read.
  def folder
    @folder ||= Dir.mktmpdir("vorn-tshark").tap do |dir|
      at_exit { FileUtils.remove_entry(dir) }
      File.chmod(0o755, dir)
      FileUtils.cp(SCRIPT, dir)
    end
  end

  def run(capture, *options)
    readable = File.join(folder, "capture.pcap")
    FileUtils.cp(capture, readable)
    File.chmod(0o644, readable)
    script = File.join(folder, File.basename(SCRIPT))
    command = [*UNPRIVILEGED, "tshark", "-n", "-X", "lua_script:#{script}", "-r", readable, *options]
    out, err, status = Open3.capture3({ "WIRESHARK_CONFIG_DIR" => folder, "HOME" => folder }, *command)
    raise "#{command.join(' ')}: #{status}\n#{err}" unless status.success? && err.empty?
    out.force_encoding(Encoding::BINARY)
  end

  # tshark 4.4 doubles the backslashes in a field. The option against it, unknown to 4.0, would also pass a line feed in
  # a string through, which ends the line.
  def doubles_backslashes?
    return @doubles_backslashes unless @doubles_backslashes.nil?
    said, = Open3.capture2e(*%w[tshark -T fields -e frame.number -E escape=y -r], File::NULL)
    @doubles_backslashes = !said.include?("is not a valid field output")
  end

  # One hash per packet, from field to the list of its values. Raises if the dissector's script fails.
  def packets(capture, fields, *options)
    fields += ["_ws.lua.error"]
    names = fields.map { |field| ["-e", field] }.flatten
    format = ["-T", "fields", "-E", "separator=/t", "-E", "aggregator=#{SEPARATOR}"]
    run(capture, *options, *format, *names).lines.map { |line|
      line = line.gsub("\\\\") { "\\" } if doubles_backslashes?
      cells = line.chomp("\n").split("\t", -1)
      packet = fields.zip(cells.map { |cell| cell.split(SEPARATOR, -1) }).to_h
      raise "the dissector failed: #{line}" unless packet.delete("_ws.lua.error").empty?
      packet
    }
  end

  # The fields of a whole capture, in order: one hash per TCP connection, by its number.
  def streams(capture, fields, *options)
    streams = Hash.new { |all, number| all[number] = fields.map { |field| [field, []] }.to_h }
    packets(capture, ["tcp.stream"] + fields, *options).each do |packet|
      stream = streams[packet["tcp.stream"].first.to_i]
      fields.each { |field| stream[field].concat(packet[field]) }
    end
    streams
  end
end
