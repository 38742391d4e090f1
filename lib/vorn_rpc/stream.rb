# frozen_string_literal: true

require "vorn_rpc"
require "vorn_rpc/stream/errors"
require "vorn_rpc/stream/decoder"
require "vorn_rpc/stream/encoder"
require "vorn_rpc/stream/reader"
require "vorn_rpc/stream/writer"

module VORN
  Extension.load("vorn_rpc_stream_ext")

  # Messages on a byte stream. A message is any value that the codec knows; a frame carries one or several.
  #
  # Decoder and Encoder do no input or output: they take and give Strings of bytes, for programs with a loop of their
  # own. Reader and Writer put them over anything that reads or writes: sockets, pipes, files, StringIO, TLS.
  #
  #   here, there = UNIXSocket.pair
  #   VORN::Stream::Writer.new(here) << { "id" => 1, "method" => "ping" }
  #   VORN::Stream::Reader.new(there).read  # => {"id" => 1, "method" => "ping"}
  #
  # A header's announced length is compared with a limit before memory is reserved for it.
  module Stream
    # The most payload bytes of a frame, unless a limit is given: 1 MiB.
    MAX_LENGTH = 1 << 20

    # What any limit of a length may be at most: what the longest header can announce.
    MOST_LENGTH = PROTO::PacketFrame::PF8_MAX_DATA_LEN

    # Levels of a message, scalars included, unless a limit is given.
    MAX_DEPTH = 64

    # A limit of a length, which is returned. Raises ArgumentError for what is none.
    def self.length_limit(limit) # :nodoc:
      return limit if limit.is_a?(Integer) && limit.between?(0, MOST_LENGTH)
      raise ArgumentError, "max_length must be an Integer from 0 to #{MOST_LENGTH}"
    end

    private_constant :Native
  end
end
