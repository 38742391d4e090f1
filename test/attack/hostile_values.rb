# frozen_string_literal: true

module Attack
  # Random descriptions of misbehaving objects.
  class HostileValues
    # What an overridden `each` may yield: pairs in both forms, and non-pairs.
    YIELDS = [
      ->(inputs) { [inputs.any_value, inputs.any_value] },
      ->(inputs) { [[inputs.any_value, inputs.any_value]] },
      ->(inputs) { [1, [2, { 3 => inputs.any_value }]] },
      ->(_) { [[[1], 2]] },
      ->(inputs) { [Callers::Own.new(:string, "key"), inputs.value(1)] },
      ->(inputs) { [[inputs.pick([nil, 1, :a])] * inputs.below(4)] },
      ->(inputs) { [inputs.any_value] },
      ->(_) { [] },
      ->(inputs) { [1, 2, inputs.any_value] },
      ->(inputs) { [inputs.value(0), inputs.pick(Inputs::UNSUPPORTED)] },
      ->(inputs) { [inputs.deep_value, 1] }
    ].freeze

    # Steps that need a block.
    YIELDING = [:yield, :attempt, :fiber, :thread, :keep].freeze

    def initialize(inputs, generator)
      @inputs = inputs
      @generator = generator
    end

    # A value that contains a misbehaving object.
    def value
      case @inputs.below(9)
      when 0 then [@inputs.any_value, each(2), @inputs.any_value]
      when 1 then { "before" => @inputs.any_value, each(1) => 1, 2 => each(2), 3 => @inputs.any_value }
      when 2 then Callers::Named.new(:array, [1, each(1, :array), 2, each(1, :array), 3])
      when 3 then Callers::Named.new(:hash, 1 => 2, 3 => each(1, :hash), 4 => 5, 6 => each(1, :hash), 7 => 8)
      when 4 then cycle
      when 5 then [own, { 1 => own }, own]
      else each(2)
      end
    end

    # A number whose conversion performs steps.
    def number(number, named = nil)
      number = @inputs.pick(["no number", nil, 2.5, :a]) if @inputs.chance(15)
      Callers::Number.new(number, steps(1, named).reject { |kind, _| YIELDING.include?(kind) })
    end

    # Steps that leave the bytes of this slot alone.
    def steps_elsewhere(slot)
      steps = Array.new(@inputs.below(3)) { [:operate, @generator.nested_elsewhere(slot)] }
      steps << [:raise, "from a key"] if @inputs.chance(6)
      steps << [:throw, :from_a_key] if @inputs.chance(8)
      steps
    end

    private

    def each(levels, named = nil)
      Callers::Each.new(steps(levels, named))
    end

    def cycle
      return Callers::Named.new(:cycle, [1, Callers::Cycle.new(:cycle)]) if @inputs.chance(2)
      Callers::Named.new(:cycle, 1 => [Callers::Cycle.new(:cycle)], 2 => 3)
    end

    def own
      case @inputs.below(4)
      when 0 then Callers::Own.new(:array, [1, @inputs.any_value, "x"])
      when 1 then Callers::Own.new(:hash, 1 => @inputs.any_value, "k" => [])
      else Callers::Own.new(:string, @inputs.string)
      end
    end

    def steps(levels, named)
      steps = Array.new(@inputs.below(5)) { step(levels, named) }
      steps << [:change, named, @inputs.pick(Callers::CHANGES.keys)] if named && @inputs.chance(2)
      steps << ending if @inputs.chance(8)
      steps.push([:yield, yielded(levels)])
    end

    def ending
      @inputs.pick([[:raise, "own"], [:throw, 7], [:throw, [1, "two"]], [:return]])
    end

    def step(levels, named)
      case @inputs.below(16)
      when 0, 1, 2 then [:attempt, yielded(levels)]
      when 3, 4, 5, 6 then [:operate, @generator.nested]
      when 7 then @inputs.chance(2) ? [:keep] : [:again, yielded(0)]
      when 8 then [:fiber, yielded(0)]
      when 9 then @inputs.chance(200) ? [:thread, yielded(0)] : [:yield, yielded(levels)]
      when 10 then [:collect]
      when 11 then named ? [:change, named, @inputs.pick(Callers::CHANGES.keys)] : [:keep]
      else [:yield, yielded(levels)]
      end
    end

    def yielded(levels)
      return [@inputs.value(0), each(levels - 1)] if levels > 0 && @inputs.chance(4)
      @inputs.chance(6) ? @inputs.pick(YIELDS).call(@inputs) : [@inputs.any_value, @inputs.any_value]
    end
  end
end
