# frozen_string_literal: true

# One message from a client to a server and back, over a pair of connected sockets.
require "socket"
require "vorn_rpc"

# Sends the values in one frame. The frame is reused: reset keeps its storage.
def send_frame(socket, frame, *values)
  frame.reset # skips the header, which would overwrite the data otherwise
  values.each { |value| frame << value }
  frame.compute_frame_header
  socket.write(frame.to_str)
  frame.inc_seq
end

# Yields each frame of the stream until the peer closes it. A chunk may end in the middle of a header, or
# contain several frames.
def each_frame(socket, frame)
  frame.reset
  loop do
    chunk = socket.readpartial(4096)
    offset = 0
    while offset < chunk.bytesize
      offset += frame.assemble(chunk, offset)
      if frame.have_complete_frame?
        yield frame
        frame.reset
      elsif offset < chunk.bytesize
        raise IOError, "the peer sent a bad frame"
      end
    end
  end
rescue EOFError
  nil
end

# Reads all values of a complete frame.
def values_of(frame)
  values = []
  frame.seek_payload_start
  values << frame.extract_object while frame.index_within_payload?(frame.pos)
  values
end

here, there = UNIXSocket.pair

server = Thread.new do
  reply = VORN::PROTO::PacketFrameOut.new
  each_frame(there, VORN::PROTO::PacketFrameIn.new) do |frame|
    answers = values_of(frame).map { |request| { "sum" => request["numbers"].inject(:+) } }
    send_frame(there, reply, *answers)
  end
  there.close
end
server.abort_on_exception = true

request = VORN::PROTO::PacketFrameOut.new
request.use_12byte_header = true
send_frame(here, request, { "numbers" => [1, 2, 3] }, { "numbers" => [0.5, -4] })
here.close_write

each_frame(here, VORN::PROTO::PacketFrameIn.new) do |frame|
  puts "frame #{frame.seq}, #{frame.payload_size} bytes"
  values_of(frame).each { |answer| puts answer["sum"] }
end
server.join
# prints frame 0, 24 bytes
# prints 6
# prints -3.5
