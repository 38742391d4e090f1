# frozen_string_literal: true

require "vorn_rpc"

# Encodes and decodes a value without a frame: Redis keeps the length.
module Payload
  module_function

  # Beware of Integers beyond 32 bits, which are cut to their low 32 bits; send them as Strings.
  def encode(value)
    (VORN::PROTO::PacketBuf.new << value).to_str
  end

  # Raises RuntimeError unless the bytes are exactly one value.
  def decode(bytes)
    buffer = VORN::PROTO::PacketBuf.new
    buffer.write_raw(bytes).reset
    value = buffer.extract_object
    raise "#{bytes.bytesize - buffer.pos} bytes behind the value" unless buffer.pos == bytes.bytesize

    value
  end
end
