# frozen_string_literal: true

# Listens on a port that the system chooses, prints its number, and serves one client: checks each record that
# arrives and returns the decoded record and its counts.
require "socket"
require_relative "stream"
require_relative "tally"

# From single bytes to more than a network packet; no size divides another, so reads and frames never align.
CHUNK_SIZES = [1, 7, 1460, 3, 4093, 61, 65_521, 251]

def answer_to(message)
  record = message["record"]
  tally = Tally.of(record)
  unless tally == message["tally"]
    raise Stream::Failure, "record #{message['id']}: counted #{tally}, announced #{message['tally']}"
  end
  { "id" => message["id"], "record" => record, "tally" => tally }
end

begin
  listener = TCPServer.new("127.0.0.1", 0)
  puts listener.addr[1]
  $stdout.flush
  IO.select([listener], nil, nil, Stream::PATIENCE) or raise Stream::Failure, "no client came"
  socket = listener.accept
  listener.close

  stream = Stream.new(socket, CHUNK_SIZES)
  records = 0
  stream.each_frame do |messages|
    # Alternates between the two layouts.
    stream.send_frame(messages.map { |message| answer_to(message) }, stream.frames_in.even?)
    records += messages.size
  end
  socket.close
  warn "server: #{records} records checked, read in chunks of #{CHUNK_SIZES.sort.join(', ')} bytes at most"
rescue Stream::Failure, SystemCallError => e
  abort "server: #{e.message}"
end
