# frozen_string_literal: true

module Attack
  class Difference < StandardError
  end

  # One run: the operations of a seed, performed on the model's pool and on the extension's.
  class Comparison
    # A subclass, for methods that accept only the classes themselves.
    class OwnBuf < VORN::PROTO::PacketBuf
    end

    class OwnOut < VORN::PROTO::PacketFrameOut
    end

    class OwnBufModel < Model::PacketBuf
      def self.modelled
        OwnBuf.name
      end
    end

    class OwnOutModel < Model::PacketFrameOut
      def self.modelled
        OwnOut.name
      end
    end

    EXTENSION = { buf: VORN::PROTO::PacketBuf, out: VORN::PROTO::PacketFrameOut, in: VORN::PROTO::PacketFrameIn,
                  frame: VORN::PROTO::PacketFrame, own_buf: OwnBuf, own_out: OwnOut }.freeze
    MODEL = { buf: Model::PacketBuf, out: Model::PacketFrameOut, in: Model::PacketFrameIn,
              frame: Model::PacketFrame, own_buf: OwnBufModel, own_out: OwnOutModel }.freeze
    WRITING = [:write_raw, :write_object, :<<, :copy_object, :assemble, :compute_frame_header].freeze

    # Operations whose outcomes were compared, and those that were skipped because they need too much memory.
    attr_reader :performed, :skipped

    def initialize(seed, collector = Collector.new("normal"))
      @seed = seed
      @collector = collector
      @model = ObjectPool.new(MODEL)
      @real = ObjectPool.new(EXTENSION)
      @random = Random.new(seed)
      inputs = Inputs.new(@random)
      @generator = Generator.new(inputs, @model)
      @overwriting_keys = OverwritingKeys.new(inputs)
      @performed = 0
      @skipped = 0
      Generator::POOL.each_index { |slot| replace(slot) }
    end

    def run(count)
      until @performed >= count
        step
        @collector.between(@performed)
      end
      compare_all("at the end")
      self
    end

    private

    def step
      operation = @generator.next_operation
      return if skip?(operation)
      @performed += 1
      expected = @model_outcome
      actual = @collector.during { @real.perform(operation) }
      settle_position(operation, expected)
      compare(operation, expected, actual)
      @generator.learn(operation, expected)
      after(operation)
    end

    # Performs the operation in the model's pool, and undoes it there if it needs too much memory or stack.
    def skip?(operation)
      @model.forget
      @real.forget
      save(operation)
      @model_outcome = @model.perform(operation)
      return false unless @model_outcome[1].equal?(SystemStackError)
      undo
    rescue Model::TooLarge
      undo
    end

    # The position after a key's own code has stopped the reading is unspecified.
    def settle_position(operation, expected)
      return unless operation.steps && expected[0] != :value
      [@model, @real].each { |pool| pool.objects[operation.slot].seek(0) }
    end

    def after(operation)
      call_kept if @model.kept.any? && @random.rand(4) == 0
      replace(operation.slot) if @generator.outgrown(operation.slot)
      overwrite if @random.rand(100) == 0
    end

    def replace(slot)
      @generator.forget_plans
      create(slot, :frame, @random.rand(2) == 0 ? :new : :allocate)
      create(slot, *@generator.fresh(slot))
    end

    def create(slot, key, how)
      compare_outcomes("#{key}.#{how}", @model.create(slot, key, how), @real.create(slot, key, how))
    end

    # Not counted as compared: the model takes no part.
    def overwrite
      unsound = @overwriting_keys.attempt
      differ("a key that overwrites", "a value, or bytes that are none", unsound) if unsound
    end

    # By now the iterations of all kept blocks have ended.
    def call_kept
      args = [[1, 2]] * @random.rand(3)
      @model.kept.each_index do |index|
        compare_outcomes("a kept block", @model.call_kept(index, args), @real.call_kept(index, args))
        @performed += 1
      end
      [@model, @real].each { |pool| pool.kept.clear }
    end

    # --- undoing --------------------------------------------------------------------------------------------

    def save(operation)
      @saved = slots_at_risk(operation).map { |slot| [slot, @model.objects[slot].saved] }
      @saved_kept = @model.kept.size
    end

    def slots_at_risk(operation)
      return @model.objects.each_index if far_reaching?(operation)
      WRITING.include?(operation.name) ? touched(operation) : []
    end

    # Whether callbacks may have touched any object of the pool.
    def far_reaching?(operation)
      operation.made && operation.name != :copy_object || operation.steps ||
        @model.objects[operation.slot].maxdepth.is_a?(Callers::OwnInteger)
    end

    def touched(operation)
      destination = operation.args[0] if operation.made
      [operation.slot, *(destination.slot if destination.is_a?(Callers::Slot))].uniq
    end

    def undo
      @saved.each { |slot, saved| @model.objects[slot].restore(saved) }
      @model.kept.slice!(@saved_kept..-1)
      @skipped += 1
      true
    end

    # --- comparing ------------------------------------------------------------------------------------------

    def compare(operation, expected, actual)
      compare_outcomes(operation, expected, actual)
      compare_outcomes("what callbacks did in #{operation}", @model.log, @real.log)
      return compare_all(operation) if far_reaching?(operation)
      touched(operation).each { |slot| compare_state(operation, slot) }
    end

    def compare_outcomes(what, expected, actual)
      differ(what, expected, actual) unless Model.same?(expected, actual)
    end

    def compare_all(what)
      @model.objects.each_index { |slot| compare_state(what, slot) }
    end

    def compare_state(what, slot)
      expected = @model.objects[slot]
      actual = @real.objects[slot]
      states = [state(expected), state(actual)]
      differ("state of pool[#{slot}] after #{what}", *states) unless states[0] == states[1]
      compare_bytes(what, slot, expected, actual)
    end

    def state(buf)
      state = [buf.pos, buf.payload_size]
      case buf
      when Model::PacketFrameIn, VORN::PROTO::PacketFrameIn then state << buf.have_complete_frame? << buf.seq
      when Model::PacketFrameOut, VORN::PROTO::PacketFrameOut then state << buf.next_seq << buf.using_12byte_header?
      else state
      end
    end

    # In an inbound frame, the bytes beyond the payload's end are unspecified.
    def compare_bytes(what, slot, expected, actual)
      size = [expected.payload_end, expected.data.bytesize].min
      return if size == 0 || !expected.readable?(size - 1)
      stored = actual.seek(size).to_str
      actual.seek(expected.pos)
      wanted = expected.data[0, size]
      differ("bytes of pool[#{slot}] after #{what}", wanted, stored) unless stored == wanted
    end

    def differ(what, expected, actual)
      raise Difference, "seed #{@seed}, operation #{@performed}: #{what}\n" \
                        "  model:     #{Attack.text(expected)}\n  extension: #{Attack.text(actual)}\n" \
                        "replay: bin/attack --seed #{@seed} --ops #{@performed}#{@collector.option}"
    end
  end
end
