# frozen_string_literal: true

require_relative "packet_buf"

module Model
  # A frame assembled from chunks: the bytes from its start marker on, and a state. Missing bytes of the header count as
  # zero, and a missing layout byte as the 8-byte layout.
  class PacketFrameIn < PacketBuf
    ASSEMBLE = "packetframein_assemble: "
    ACCEPT = "PacketFrameIn::st_accept_payload: "
    SOFT_LIMIT = 0x7FFFFFFF

    attr_reader :seq

    def reset
      @pos = 0
      @data_len = 0
      @seq = 0
      @complete = false
      @state = :sync
      self
    end

    # The stored bytes may belong to an earlier frame: they determine the layout only once this frame's have arrived.
    def payload_start
      @pos >= 2 || header_held? ? header_len : 8
    end

    def payload_end
      @data_len + payload_start
    end

    def have_complete_frame?
      @complete
    end

    def assemble(data, offset)
      raise ArgumentError, ASSEMBLE + "data argument should be T_STRING" unless String === data
      return 0 if [data].pack("a*").empty?
      offset = Conversions.signed_32(offset)
      chunk = [data].pack("a*")
      unless offset >= 0 && offset < chunk.bytesize
        raise ArgumentError, ASSEMBLE + "offset argument out of range"
      end
      run(chunk, offset)
    end

    private

    def construct
      super
      @data_len = 0
      @seq = 0
      @complete = false
      @state = nil
    end

    # Runs until the state stays the same. Each state takes bytes of the chunk and returns how many.
    def run(chunk, offset)
      @complete = false
      return 0 if @state.nil?
      total = 0
      loop do
        state = @state
        total += send(state, chunk, offset + total)
        return total if @state == state
      end
    end

    def sync(chunk, offset)
      marker = chunk.index("\xA5".b, offset)
      return chunk.bytesize - offset if marker.nil?
      @state = :accept_header
      marker - offset
    end

    def accept_header(chunk, offset)
      taken = take_up_to(2, chunk, offset)
      return taken if @pos < 2
      wanted = header_len
      taken += take_up_to(wanted, chunk, offset + taken)
      @state = :check_header if @pos >= wanted
      taken
    end

    def check_header(_chunk, _offset)
      return fail_with("Bad Header CRC") if header_len == 12 && stored(11) != 0x5A
      @seq = stored(2) << 8 | stored(3)
      @data_len = header_len == 12 ? stored_number(4, 3) : stored_number(4, 4)
      return fail_with("Payload size exceeds soft limit") if @data_len > SOFT_LIMIT
      grow_to(header_len + @data_len)
      @state = :accept_payload
      0
    end

    def accept_payload(chunk, offset)
      received = @pos - header_len
      raise ACCEPT + "data pos inside header (internal error)" if received < 0
      raise ACCEPT + "excess payload received (internal error)" if received > @data_len
      missing = @data_len - received
      bytes = chunk[offset, missing]
      write_bytes(bytes)
      @state = :check_payload if bytes.bytesize == missing
      bytes.bytesize
    end

    def check_payload(_chunk, _offset)
      return fail_with("Bad Payload Data CRC") if header_len == 12 && stored_number(7, 4) != 0xDEADBEEF
      @state = :complete
      0
    end

    def complete(_chunk, _offset)
      @complete = true
      0
    end

    def failed(_chunk, _offset)
      0
    end

    # Ruby code cannot see the reason, so the model does not keep it.
    def fail_with(_message)
      @state = :failed
      0
    end

    def header_held?
      ![nil, :sync, :accept_header].include?(@state)
    end

    def header_len
      @data.bytesize < 2 || @data.getbyte(1).odd? ? 8 : 12
    end

    def stored(index)
      @data.getbyte(index) || 0
    end

    def stored_number(index, size)
      (index...index + size).inject(0) { |number, at| number << 8 | stored(at) }
    end

    def take_up_to(pos, chunk, offset)
      return 0 if @pos >= pos
      bytes = chunk[offset, pos - @pos]
      write_bytes(bytes)
      bytes.bytesize
    end
  end
end
