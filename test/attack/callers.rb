# frozen_string_literal: true

module Attack
  # Misbehaving objects: descriptions of objects whose methods run Ruby code in the middle of an operation. Each pool
  # builds its own objects from a description. They act through steps:
  #
  #   [:yield, args]              calls the block of an overridden `each`
  #   [:attempt, args]            likewise, and continues when that raises; the outcome is logged
  #   [:operate, operation]       performs an operation on the pool; the outcome is logged
  #   [:keep]                     keeps the block for a later call
  #   [:again, args]              calls the block that was kept last, whose iteration may have ended, and continues
  #   [:fiber, args]              calls the block in a Fiber
  #   [:thread, args]             calls the block in a Thread
  #   [:change, name, how]        changes the named container or String
  #   [:collect]                  requests a garbage collection, if the run moves objects
  #   [:raise, text], [:throw, value], [:return]
  module Callers
    class Misbehaved < StandardError
    end

    # The interpreter inspects an object for some error texts, including everything it refers to: here, the whole pool.
    module Terse
      def inspect
        "(misbehaves)"
      end
    end

    # A Hash whose `each` performs steps.
    class OwnEach < Hash
      include Terse

      def prepare(steps, pool)
        @steps = steps
        @pool = pool
        self
      end

      def each(&block)
        @steps.each { |step| Callers.take(step, @pool, block) == :return and return }
        self
      end
    end

    # An object whose to_int performs steps first.
    class OwnInteger
      include Terse

      def initialize(number, steps, pool)
        @number = number
        @steps = steps
        @pool = pool
      end

      # Compared when options are read back.
      def ==(other)
        other.is_a?(OwnInteger)
      end

      def to_int
        @steps.each { |step| Callers.take(step, @pool, nil) == :return and break }
        @number
      end
    end

    # None of these methods may be called: only the bytes, the members and the entries count.
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

    # An object that is not a String and cannot be encoded.
    class NoString
      include Unasked
    end

    # --- descriptions -----------------------------------------------------------------------------------------

    # As the key of a described Hash, only identity counts.
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

    def make(described, pool)
      case described
      when Each then OwnEach.new.prepare(described.steps, pool)
      when Number then OwnInteger.new(described.number, described.steps, pool)
      when Named then make_named(described, pool)
      when Cycle then pool.named[described.name]
      when Slot then pool.objects[described.slot]
      when Own then OWN.fetch(described.kind).allocate.__send__(:replace, make(described.value, pool))
      when Array then described.map { |member| make(member, pool) }
      when Hash then make_entries({}, described, pool)
      else described
      end
    end

    # Named before its members are built: they may include the container itself.
    def make_named(described, pool)
      value = described.value
      case value
      when Array
        array = pool.named[described.name] = []
        value.each { |member| array << make(member, pool) }
        array
      when Hash then make_entries(pool.named[described.name] = {}, value, pool)
      else pool.named[described.name] = value.dup
      end
    end

    def make_entries(hash, described, pool)
      described.each { |key, member| hash[make(key, pool)] = make(member, pool) }
      hash
    end

    # --- steps ------------------------------------------------------------------------------------------------

    def take(step, pool, block)
      kind, what, how = step
      case kind
      when :yield then block.call(*make(what, pool)) if block
      when :attempt then attempt(make(what, pool), pool, block)
      when :operate then pool.perform_nested(what)
      when :keep then pool.kept << block if block && pool.kept.size < 8
      when :again then attempt(make(what, pool), pool, pool.kept.last)
      when :fiber then within(pool) { Fiber.new { block.call(*make(what, pool)) }.resume } if block
      when :thread then within(pool) { quietly(make(what, pool), block) } if block
      when :change then CHANGES.fetch(how).call(pool.named[what]) if pool.named[what]
      when :raise then raise Misbehaved, what
      when :throw then throw :attack, what
      when :collect then Collector.meanwhile.call
      when :return then return :return
      end
      nil
    end

    def attempt(args, pool, block)
      return if block.nil?
      block.call(*args)
    rescue StandardError => error
      pool.log << ObjectPool.raised(error)
    end

    # A throw cannot leave its fiber or thread: the interpreter raises one of several errors, depending on its version.
    def within(pool)
      yield
      nil
    rescue UncaughtThrowError, ArgumentError, FiberError => error
      pool.log << [:raised, error.class, ""]
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

  # Makes the next call of Array#hash or Hash#hash perform steps first, once.
  module KeyHook
    class << self
      attr_accessor :steps, :pool

      def during(steps, pool)
        self.steps = steps
        self.pool = pool
        yield
      ensure
        self.steps = nil
      end
    end

    def hash
      steps = KeyHook.steps
      if steps
        KeyHook.steps = nil
        steps.each { |step| Callers.take(step, KeyHook.pool, nil) }
      end
      super
    end
  end
  Array.prepend(KeyHook)
  Hash.prepend(KeyHook)
end
