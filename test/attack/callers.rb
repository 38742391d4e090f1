# frozen_string_literal: true

module Attack
  # What misbehaves: descriptions of objects whose methods run Ruby code in the middle of an operation. Each world makes
  # its own objects from a description. They act through steps:
  #
  #   [:yield, args]              calls the block of an own `each`
  #   [:attempt, args]            likewise, and goes on when that raises; the outcome is logged
  #   [:operate, operation]       uses the pool; the outcome is logged
  #   [:keep]                     keeps the block, to be called later
  #   [:again, args]              calls the block that was kept last, whose iteration may have ended, and goes on
  #   [:fiber, args]              calls the block in a Fiber
  #   [:thread, args]             calls the block in a Thread
  #   [:change, name, how]        changes the named container or String
  #   [:collect]                  wants a collection; there is one where objects are moved
  #   [:raise, text], [:throw, value], [:return]
  module Callers
    class Misbehaved < StandardError
    end

    # The interpreter inspects an object for some texts, and what it holds: not the whole world.
    module Terse
      def inspect
        "(misbehaves)"
      end
    end

    # A Hash whose `each` performs steps.
    class OwnEach < Hash
      include Terse

      def prepare(steps, world)
        @steps = steps
        @world = world
        self
      end

      def each(&block)
        @steps.each { |step| Callers.take(step, @world, block) == :return and return }
        self
      end
    end

    # What is asked for a number performs steps first.
    class OwnInteger
      include Terse

      def initialize(number, steps, world)
        @number = number
        @steps = steps
        @world = world
      end

      # They are compared when they are read back from where they were stored.
      def ==(other)
        other.is_a?(OwnInteger)
      end

      def to_int
        @steps.each { |step| Callers.take(step, @world, nil) == :return and break }
        @number
      end
    end

    # None of these methods is to be called: the bytes, the members and the entries count.
    module Unasked
      NAMES = [:to_s, :to_str, :to_ary, :to_a, :to_hash, :to_h, :to_sym, :to_f, :to_i, :size, :length, :bytesize,
               :bytes, :b, :[], :at, :each_pair, :each_with_index, :each_byte, :map, :keys, :values, :fetch, :default,
               :empty?, :==, :encoding, :force_encoding, :unpack, :coerce, :respond_to_missing?, :method_missing].freeze
      NAMES.each { |name| define_method(name) { |*| raise Misbehaved, "#{name} was called" } }
    end

    class OwnString < String
      include Unasked
      Unasked::NAMES.each { |name| define_method(name, Unasked.instance_method(name)) }
    end

    class OwnArray < Array
      include Unasked
      (Unasked::NAMES + [:each]).each { |name| define_method(name) { |*| raise Misbehaved, "#{name} was called" } }
    end

    class OwnHash < Hash
      include Unasked
      Unasked::NAMES.each { |name| define_method(name, Unasked.instance_method(name)) }
    end

    # Neither a String nor anything else that can be written.
    class NoString
      include Unasked
    end

    # --- descriptions -----------------------------------------------------------------------------------------

    # Where one is the key of a described Hash, only itself counts.
    class Description < Struct
      def hash
        __id__
      end

      def eql?(other)
        equal?(other)
      end
    end

    Each = Description.new(:steps)
    Number = Description.new(:number, :steps)
    Named = Description.new(:name, :value) # a container or String that steps can change
    Cycle = Description.new(:name)         # the named container itself
    Slot = Description.new(:slot)          # an object of the pool
    Own = Description.new(:kind, :value)   # an instance of OwnString, OwnArray or OwnHash

    OWN = { string: OwnString, array: OwnArray, hash: OwnHash }.freeze

    module_function

    def make(described, world)
      case described
      when Each then OwnEach.new.prepare(described.steps, world)
      when Number then OwnInteger.new(described.number, described.steps, world)
      when Named then make_named(described, world)
      when Cycle then world.named[described.name]
      when Slot then world.pool[described.slot]
      when Own then OWN.fetch(described.kind).allocate.__send__(:replace, make(described.value, world))
      when Array then described.map { |member| make(member, world) }
      when Hash then make_entries({}, described, world)
      else described
      end
    end

    # Named before its members are made: they may be the container itself.
    def make_named(described, world)
      value = described.value
      case value
      when Array
        array = world.named[described.name] = []
        value.each { |member| array << make(member, world) }
        array
      when Hash then make_entries(world.named[described.name] = {}, value, world)
      else world.named[described.name] = value.dup
      end
    end

    def make_entries(hash, described, world)
      described.each { |key, member| hash[make(key, world)] = make(member, world) }
      hash
    end

    # --- steps ------------------------------------------------------------------------------------------------

    def take(step, world, block)
      kind, what, how = step
      case kind
      when :yield then block.call(*make(what, world)) if block
      when :attempt then attempt(make(what, world), world, block)
      when :operate then world.perform_nested(what)
      when :keep then world.kept << block if block && world.kept.size < 8
      when :again then attempt(make(what, world), world, world.kept.last)
      when :fiber then within(world) { Fiber.new { block.call(*make(what, world)) }.resume } if block
      when :thread then within(world) { quietly(make(what, world), block) } if block
      when :change then CHANGES.fetch(how).call(world.named[what]) if world.named[what]
      when :raise then raise Misbehaved, what
      when :throw then throw :attack, what
      when :collect then Collector.meanwhile.call
      when :return then return :return
      end
      nil
    end

    def attempt(args, world, block)
      return if block.nil?
      block.call(*args)
    rescue StandardError => error
      world.log << World.raised(error)
    end

    # Nothing is thrown out of a fiber or a thread.
    def within(world)
      yield
      nil
    rescue UncaughtThrowError, ArgumentError, FiberError => error
      world.log << [:raised, error.class, ""]
    end

    def quietly(args, block)
      Thread.new do
        Thread.current.report_on_exception = false if Thread.current.respond_to?(:report_on_exception=)
        block.call(*args)
      end.value
    end

    CHANGES = {
      clear: ->(it) { it.clear },
      shrink: ->(it) { it.is_a?(Hash) ? it.delete(it.keys.last) : it.slice!(-1..-1) },
      shift: ->(it) { it.is_a?(String) ? it.slice!(0, 1) : it.shift },
      grow: ->(it) { it.is_a?(Hash) ? it[:grown] = 1 : it.concat(it.is_a?(String) ? "grown" * 9 : [nil] * 99) },
      replace: ->(it) { it.replace(it.is_a?(Hash) ? { 5 => 6 } : it.is_a?(String) ? "\xA5\x01".b : [true, "7"]) }
    }.freeze
  end

  # Makes the next Array or Hash that is asked for its hash perform steps first, once.
  module KeyHook
    class << self
      attr_accessor :steps, :world

      def during(steps, world)
        self.steps = steps
        self.world = world
        yield
      ensure
        self.steps = nil
      end
    end

    def hash
      steps = KeyHook.steps
      if steps
        KeyHook.steps = nil
        steps.each { |step| Callers.take(step, KeyHook.world, nil) }
      end
      super
    end
  end
  Array.prepend(KeyHook)
  Hash.prepend(KeyHook)
end
