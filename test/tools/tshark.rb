require 'fileutils'
require 'open3'
require 'tmpdir'

# Runs tshark with the dissector, apart from what the user has installed and configured.
module Tshark
  SCRIPT = File.expand_path('../../../tools/wireshark/vorn.lua', __FILE__)
  DECODE_AS = ['-d', 'tcp.port==40700,vorn'].freeze
  SEPARATOR = "\x1f" # in no field: texts show their control characters escaped

  module_function

  def configuration
    @configuration ||= Dir.mktmpdir('vorn-tshark').tap { |dir| at_exit { FileUtils.remove_entry(dir) } }
  end

  def run(capture, *options)
    command = ['tshark', '-n', '-X', "lua_script:#{SCRIPT}", '-r', capture, *options]
    out, err, status = Open3.capture3({ 'WIRESHARK_CONFIG_DIR' => configuration }, *command)
    err = err.lines.reject { |line| line.start_with?('Running as user "root"') }.join
    raise "#{command.join(' ')}: #{status}\n#{err}" unless status.success? && err.empty?
    out.force_encoding(Encoding::BINARY)
  end

  # One hash for each packet: field to the list of its values. A fault of the script itself is raised.
  def packets(capture, fields, *options)
    fields += ['_ws.lua.error']
    names = fields.map { |field| ['-e', field] }.flatten
    format = ['-T', 'fields', '-E', 'separator=/t', '-E', "aggregator=#{SEPARATOR}"]
    run(capture, *options, *format, *names).lines.map { |line|
      cells = line.chomp("\n").split("\t", -1)
      packet = fields.zip(cells.map { |cell| cell.split(SEPARATOR, -1) }).to_h
      raise "the dissector failed: #{line}" unless packet.delete('_ws.lua.error').empty?
      packet
    }
  end

  # The fields of a whole capture, in order: one hash for each TCP connection, by its number.
  def streams(capture, fields, *options)
    streams = Hash.new { |all, number| all[number] = fields.map { |field| [field, []] }.to_h }
    packets(capture, ['tcp.stream'] + fields, *options).each do |packet|
      stream = streams[packet['tcp.stream'].first.to_i]
      fields.each { |field| stream[field].concat(packet[field]) }
    end
    streams
  end
end
