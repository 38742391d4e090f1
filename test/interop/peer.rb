# frozen_string_literal: true

# What the tests with wire_peer share: frames of one value each, the peer itself, and the count of what passed.

require "open3"
require "vorn_rpc"

PEER = ARGV.fetch(0)

# The answer of the peer to what it is sent, and whether it did well.
def peer(*arguments, input)
  out, status = Open3.capture2(PEER, *arguments.map(&:to_s), stdin_data: input, binmode: true)
  [out.force_encoding(Encoding::BINARY), status.success?]
end

def frame_of(frame, value)
  frame.use_12byte_header = !frame.using_12byte_header?
  frame << value
  bytes = frame.compute_frame_header.to_str
  frame.inc_seq
  bytes
end

def values_of(stream)
  frame = VORN::PROTO::PacketFrameIn.new
  frame.reset
  offset = 0
  values = []
  while offset < stream.bytesize
    offset += frame.assemble(stream, offset)
    break unless frame.have_complete_frame?
    frame.seek_payload_start
    values << frame.extract_object
    frame.reset
  end
  values
end

$passed = $failed = 0

def report(good, text)
  good ? $passed += 1 : $failed += 1
  puts "#{good ? 'ok' : 'FAILED'}: #{text}"
end
