# frozen_string_literal: true

# Frames over a socket.
require "vorn_rpc"

class Stream
  class Failure < StandardError; end

  PATIENCE = 30 # without receiving a byte

  attr_reader :bytes_in, :bytes_out, :frames_in, :frames_out

  # Each read requests the next of these sizes.
  def initialize(socket, chunk_sizes)
    @socket = socket
    @chunk_sizes = chunk_sizes.cycle
    @inbound = VORN::PROTO::PacketFrameIn.new
    @inbound.preserve_symbols_on_extract = true
    @outbound = VORN::PROTO::PacketFrameOut.new
    @bytes_in = @bytes_out = @frames_in = @frames_out = 0
  end

  # Sends the messages as one frame and returns its bytes.
  def send_frame(messages, twelve_bytes)
    @outbound.use_12byte_header = twelve_bytes
    messages.each { |message| @outbound << message }
    bytes = @outbound.compute_frame_header.to_str
    @outbound.inc_seq
    @socket.write(bytes)
    @frames_out += 1
    @bytes_out += bytes.bytesize
    bytes
  end

  # Yields the messages of each frame until the peer closes its side.
  def each_frame
    @inbound.reset
    while (chunk = read_chunk)
      offset = 0
      while offset < chunk.bytesize
        offset += @inbound.assemble(chunk, offset)
        if @inbound.have_complete_frame?
          check_sequence
          yield messages
          @inbound.reset
        elsif offset < chunk.bytesize
          raise Failure, "a frame failed its checks"
        end
      end
    end
    raise Failure, "the peer closed the connection within a frame" unless @inbound.pos == 0
  end

  def finish
    @socket.close_write
  end

  private

  def read_chunk
    IO.select([@socket], nil, nil, PATIENCE) or raise Failure, "nothing arrived for #{PATIENCE} seconds"
    chunk = @socket.readpartial(@chunk_sizes.next)
    @bytes_in += chunk.bytesize
    chunk
  rescue EOFError
    nil
  rescue SystemCallError => e
    raise Failure, "the connection broke: #{e.message}"
  end

  def check_sequence
    expected = @frames_in % 65_536
    raise Failure, "frame #{@inbound.seq} in place of #{expected}" unless @inbound.seq == expected
    @frames_in += 1
  end

  def messages
    found = []
    @inbound.seek_payload_start
    last = @inbound.pos + @inbound.payload_size
    found << @inbound.extract_object while @inbound.pos < last
    raise Failure, "a message ends behind its frame" unless @inbound.pos == last
    found
  end
end
