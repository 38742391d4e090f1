# frozen_string_literal: true

# The Ruby side once more, as plainly as it can be said and with no regard for speed: buffers, frames and the codec in
# Ruby. Its classes have the methods of the extension's classes; what the extension does is compared with what they do.
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
