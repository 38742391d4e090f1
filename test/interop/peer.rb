# frozen_string_literal: true

# Helpers for the tests with wire_peer: frames of one value each, and the peer itself, whose path is in WIRE_PEER.

require "minitest/autorun"
require "open3"
require "vorn_rpc"

module Peer
  # The peer's output for this input, and whether it succeeded.
  def peer(*arguments, input)
    out, status = Open3.capture2(ENV.fetch("WIRE_PEER"), *arguments.map(&:to_s), stdin_data: input, binmode: true)
    [out.force_encoding(Encoding::BINARY), status.success?]
  end

  def frame_of(frame, value)
    frame.use_12byte_header = !frame.using_12byte_header?
    frame << value
    bytes = frame.compute_frame_header.to_str
    frame.inc_seq
    bytes
  end

  # Yields the frame of each message in the stream, complete and at the start of its payload.
  def each_frame(stream)
    frame = VORN::PROTO::PacketFrameIn.new
    offset = 0
    while offset < stream.bytesize
      offset += frame.reset.assemble(stream, offset)
      break unless frame.have_complete_frame?
      yield frame.seek_payload_start
    end
  end

  def values_of(stream)
    values = []
    each_frame(stream) { |frame| values << frame.extract_object }
    values
  end
end
