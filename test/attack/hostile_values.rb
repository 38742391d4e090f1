# frozen_string_literal: true

module Attack
  # Random descriptions of what misbehaves.
  class HostileValues
    # What an own `each` may yield: pairs in both forms, and what is none.
    YIELDS = [
      ->(m) { [m.any_value, m.any_value] }, ->(m) { [[m.any_value, m.any_value]] },
      ->(m) { [1, [2, { 3 => m.any_value }]] },
      ->(_m) { [[[1], 2]] }, ->(m) { [Callers::Own.new(:string, "key"), m.value(1)] },
      ->(m) { [[m.pick([nil, 1, :a])] * m.below(4)] }, ->(m) { [m.any_value] }, ->(_) { [] },
      ->(m) { [1, 2, m.any_value] },
      ->(m) { [m.value(0), m.pick(Material::UNSUPPORTED)] }, ->(m) { [m.deep_value, 1] }
    ].freeze

    # Steps that need a block.
    YIELDING = [:yield, :attempt, :fiber, :thread, :keep].freeze

    def initialize(material, generator)
      @m = material
      @generator = generator
    end

    # A value with one that misbehaves somewhere in it.
    def value
      case @m.below(9)
      when 0 then [@m.any_value, each(2), @m.any_value]
      when 1 then { "before" => @m.any_value, each(1) => 1, 2 => each(2), 3 => @m.any_value }
      when 2 then Callers::Named.new(:array, [1, each(1, :array), 2, each(1, :array), 3])
      when 3 then Callers::Named.new(:hash, 1 => 2, 3 => each(1, :hash), 4 => 5, 6 => each(1, :hash), 7 => 8)
      when 4 then cycle
      when 5 then [own, { 1 => own }, own]
      else each(2)
      end
    end

    # A number that does something when it is asked for its value.
    def number(number, named = nil)
      number = @m.pick(["no number", nil, 2.5, :a]) if @m.chance(15)
      Callers::Number.new(number, steps(1, named).reject { |kind, _| YIELDING.include?(kind) })
    end

    # Steps that leave the slot's bytes alone.
    def steps_elsewhere(slot)
      steps = Array.new(@m.below(3)) { [:operate, @generator.nested_elsewhere(slot)] }
      steps << [:raise, "from a key"] if @m.chance(6)
      steps << [:throw, :from_a_key] if @m.chance(8)
      steps
    end

    private

    def each(levels, named = nil)
      Callers::Each.new(steps(levels, named))
    end

    def cycle
      return Callers::Named.new(:cycle, [1, Callers::Cycle.new(:cycle)]) if @m.chance(2)
      Callers::Named.new(:cycle, 1 => [Callers::Cycle.new(:cycle)], 2 => 3)
    end

    def own
      case @m.below(4)
      when 0 then Callers::Own.new(:array, [1, @m.any_value, "x"])
      when 1 then Callers::Own.new(:hash, 1 => @m.any_value, "k" => [])
      else Callers::Own.new(:string, @m.string)
      end
    end

    def steps(levels, named)
      steps = Array.new(@m.below(5)) { step(levels, named) }
      steps << [:change, named, @m.pick(Callers::CHANGES.keys)] if named && @m.chance(2)
      steps << ending if @m.chance(8)
      steps.push([:yield, yielded(levels)])
    end

    def ending
      @m.pick([[:raise, "own"], [:throw, 7], [:throw, [1, "two"]], [:return]])
    end

    def step(levels, named)
      case @m.below(16)
      when 0, 1, 2 then [:attempt, yielded(levels)]
      when 3, 4, 5, 6 then [:operate, @generator.nested]
      when 7 then @m.chance(2) ? [:keep] : [:again, yielded(0)]
      when 8 then [:fiber, yielded(0)]
      when 9 then @m.chance(200) ? [:thread, yielded(0)] : [:yield, yielded(levels)]
      when 10 then [:collect]
      when 11 then named ? [:change, named, @m.pick(Callers::CHANGES.keys)] : [:keep]
      else [:yield, yielded(levels)]
      end
    end

    def yielded(levels)
      return [@m.value(0), each(levels - 1)] if levels > 0 && @m.chance(4)
      @m.chance(6) ? @m.pick(YIELDS).call(@m) : [@m.any_value, @m.any_value]
    end
  end
end
