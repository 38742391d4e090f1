# frozen_string_literal: true

module Attack
  # Keys whose hash overwrites the bytes that are being read. When the hash is called is unspecified, so the model
  # cannot know the result; but it must be a value, or a decoding error.
  class OverwritingKeys
    def initialize(inputs)
      @inputs = inputs
      @pool = ObjectPool.new(buf: VORN::PROTO::PacketBuf)
    end

    # Returns the outcome if it is neither, else nil.
    def attempt
      @pool.forget
      @pool.create(0, :buf, :new)
      buf = @pool.objects[0]
      bytes = @inputs.keyed_wire
      buf.write_raw(bytes).seek(0)
      buf.preserve_symbols_on_extract = @inputs.chance(2)
      outcome = @pool.perform(Operation.new(0, :extract_object, [], steps: steps(bytes.bytesize)))
      outcome unless sound?(outcome)
    end

    private

    def steps(size)
      Array.new(1 + @inputs.below(4)) do
        to = @inputs.chance(6) ? 70_000 : @inputs.below(size + 2)
        [[:operate, Operation.new(0, :seek, [to])], [:operate, Operation.new(0, :write_raw, [@inputs.wire])]]
      end.flatten(1)
    end

    def sound?(outcome)
      kind, error, message = outcome
      case kind
      when :value then true
      when :raised then error == EncodingError || error == RuntimeError && message.start_with?("decode_")
      end
    end
  end
end
