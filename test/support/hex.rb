# frozen_string_literal: true

# Bytes as hexadecimal text.
module Hex
  module_function

  # The bytes that "08 ff" stands for. Spaces and case are ignored.
  def decode(text)
    [text.delete(" ")].pack("H*")
  end

  # "08 ff": easy to compare by eye, in tests and in their output.
  def encode(bytes)
    bytes.unpack("H*")[0].scan(/../).join(" ")
  end

  # "08FF": a part of a value in the notation of test/vectors/.
  def digits(bytes)
    bytes.unpack("H*")[0].upcase
  end
end
