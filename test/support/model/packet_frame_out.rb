# frozen_string_literal: true

require_relative "packet_buf"

module Model
  # An outbound frame: a buffer whose start is reserved for the header.
  class PacketFrameOut < PacketBuf
    COMPUTE = "PacketFrameOut::compute_frame_header: "

    attr_reader :next_seq

    def reset
      @pos = configured_header_len
      self
    end

    def next_seq=(value)
      @next_seq = Conversions.unsigned_long(value) & 0xFFFF
      self
    end

    def inc_seq
      @next_seq = (@next_seq + 1) & 0xFFFF
      self
    end

    def use_12byte_header=(value)
      @twelve = value ? true : false
      reset
    end

    def using_12byte_header?
      @twelve
    end

    def configured_header_len
      @twelve ? 12 : 8
    end

    def configured_max_data_len
      @twelve ? 0xFFFFFF : 0x7FFFFFFF
    end

    # The payload is between the header and the position.
    def compute_frame_header
      size = @pos - configured_header_len
      raise COMPUTE + "data pos inside header (negative data length)" if size < 0
      if size > configured_max_data_len
        raise COMPUTE + "oversize: data_len #{size} > max #{configured_max_data_len}"
      end
      grow_to(configured_header_len)
      @data[0, configured_header_len] = header(size)
      self
    end

    private

    def header(size)
      return [0xA5, 1, @next_seq, size].pack("CCnN") unless @twelve
      [0xA5, 0, @next_seq, size >> 16, size, 0xDEADBEEF, 0x5A].pack("CCnCnNC")
    end

    def construct
      super
      @next_seq = 0
      @twelve = false
    end
  end
end
