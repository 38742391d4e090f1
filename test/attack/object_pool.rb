# frozen_string_literal: true

module Attack
  # One call of one method: the object of the pool, the method, and the arguments. Arguments that are `made` are
  # descriptions (see Callers), from which each pool builds its own objects. `steps` are performed when a key that is
  # being read is asked for its hash; `purpose` is for the generator.
  class Operation
    attr_reader :slot, :name, :args, :made, :steps, :purpose

    def initialize(slot, name, args, made: false, steps: nil, purpose: nil)
      @slot = slot
      @name = name
      @args = args
      @made = made
      @steps = steps
      @purpose = purpose
    end

    def to_s
      call = "pool[#{slot}].#{name}(#{args.map { |arg| Attack.text(arg) }.join(", ")})"
      steps ? "#{call} with #{Attack.text(steps)}" : call
    end
    alias inspect to_s
  end

  # For reports. BasicObject has no inspect, and some of our objects misbehave in it.
  def self.text(value)
    value.inspect[0, 2000]
  rescue StandardError
    "(cannot be shown)"
  end

  # Buffers and frames, either the extension's or the model's, and a log. A run has one pool of each and performs the
  # same operations in both.
  class ObjectPool
    # Exceptions that count as outcomes. Any other is an error of this program.
    OUTCOMES = [StandardError, ScriptError, SystemStackError].freeze
    NESTING = 3

    attr_reader :objects, :log, :kept, :named, :classes

    # Ignores the encoding of the text, and the inspected object that the interpreter appends to some. It has two texts
    # for nil as a number, in 3.3 one for each kind of number.
    def self.raised(error)
      text = error.message.b.sub(/: #<.*\z/mn, "")
      [:raised, error.class,
       text.sub("no implicit conversion of nil into Integer", "no implicit conversion from nil to integer")]
    end

    # By key: :buf, :out, :in, :own_buf, :own_out and :frame.
    def initialize(classes)
      @classes = classes
      @objects = []
      @kept = []
      forget
    end

    # Forgets what callbacks recorded.
    def forget
      @log = []
      @named = {}
      @nesting = 0
    end

    # [:value, what], [:self], [:thrown, what] or [:raised, class, message].
    def perform(operation)
      return perform_made(operation) if operation.made || operation.steps
      receiver = @objects[operation.slot]
      outcome(receiver, receiver.__send__(operation.name, *operation.args))
    rescue *OUTCOMES => error
      ObjectPool.raised(error)
    end

    # Performs an operation for a callback, and logs its outcome.
    def perform_nested(operation)
      return if @nesting >= NESTING
      @nesting += 1
      begin
        @log << perform(operation)
      ensure
        @nesting -= 1
      end
    end

    def create(slot, key, how)
      @objects[slot] = @classes.fetch(key).__send__(how)
      [:value, nil]
    rescue *OUTCOMES => error
      ObjectPool.raised(error)
    end

    def call_kept(index, args)
      @kept[index].call(*args)
      [:value, nil]
    rescue *OUTCOMES => error
      ObjectPool.raised(error)
    end

    private

    def perform_made(operation)
      receiver = @objects[operation.slot]
      thrown = catch(:attack) do
        begin
          args = operation.args.map { |arg| Callers.make(arg, self) }
          return outcome(receiver, KeyHook.during(operation.steps, self) { receiver.__send__(operation.name, *args) })
        rescue *OUTCOMES => error
          return ObjectPool.raised(error)
        end
      end
      [:thrown, thrown]
    end

    def outcome(receiver, result)
      result.equal?(receiver) ? [:self] : [:value, result]
    end
  end
end
