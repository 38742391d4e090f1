# frozen_string_literal: true

# A reference implementation of the Ruby side, as simple as possible and with no regard for speed: buffers, frames and
# the codec in Ruby. Its classes have the extension's methods; tests compare the two.
module Model
end

require_relative "model/comparison"
require_relative "model/conversions"
require_relative "model/decoder"
require_relative "model/encoder"
require_relative "model/packet_buf"
require_relative "model/packet_frame_in"
require_relative "model/packet_frame_out"

module Model
  # [value, nil, position] or [nil, message of the fault, position].
  def self.decode(bytes, maxdepth = 64)
    buf = PacketBuf.new.write_raw(bytes).seek(0)
    buf.maxdepth = maxdepth
    [buf.extract_object, nil, buf.pos]
  rescue RuntimeError => fault
    [nil, fault.message, buf.pos]
  end
end
