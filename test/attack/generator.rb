# frozen_string_literal: true

module Attack
  # Chooses operations, guided by the model's objects so that most of them succeed in part.
  class Generator
    POOL = [:buf, :buf, :out, :out, :in, :in, :in, :own_buf, :own_out].freeze
    NESTED = [:write_wire, :write_value, :extract, :copy, :move, :look, :to_payload, :to_bytes, :reset, :limit,
              :start_over].freeze
    # Slots that values may be copied to.
    DESTINATIONS = POOL.each_index.select { |slot| [:buf, :out].include?(POOL[slot]) }.freeze
    # The initial capacity: beyond it the storage is reallocated.
    CAPACITY = 65_536
    # Objects larger than this are soon replaced.
    LARGE = 2000

    ANY = {
      write_wire: 8, write_value: 10, write_bad: 1, read_back: 12, extract: 9, copy: 5, move: 9, move_wildly: 2,
      look: 5, to_payload: 6, to_bytes: 6, reset: 4, limit: 2, symbols: 2, start_over: 1, at_capacity: 1, arity: 1,
      duplicate: 1, hostile_write: 5, hostile_number: 2,
      hostile_key: 2, hostile_limit: 1
    }.freeze
    OWN_OF = {
      buf: {}, own_buf: {}, own_out: {},
      out: { sequence: 8, layout: 5, header: 8, send_frame: 6 },
      in: { feed: 45, feed_badly: 2, ask: 5, hostile_feed: 3 }
    }.freeze

    KINDS = Hash[OWN_OF.map do |key, own|
      weights = ANY.merge(key == :own_out ? OWN_OF[:out] : own)
      [key, weights.flat_map { |kind, weight| [kind] * weight }.freeze]
    end].freeze

    def initialize(inputs, model)
      @inputs = inputs
      @callers = HostileValues.new(@inputs, self)
      @model = model
      @streams = {}
      @plan = []
    end

    def next_operation
      return @plan.shift unless @plan.empty?
      slot = self.slot
      __send__(@inputs.pick(KINDS[POOL[slot]]), slot)
    end

    # Learns from the outcome of an operation in the model's pool.
    def learn(operation, outcome)
      case operation.purpose
      when :feed then fed(operation.slot, outcome)
      when :send then sent(outcome)
      end
    end

    # Plans are for the replaced object.
    def forget_plans
      @plan.clear
    end

    # The key of a slot, and how to make its new object.
    def fresh(slot)
      @streams.delete(slot)
      [POOL[slot], @inputs.chance(20) ? :allocate : :new]
    end

    # Whether a slot's object should be replaced, mostly because it is large.
    def outgrown(slot)
      size = @model.objects[slot].data.bytesize
      size > LARGE && @inputs.chance(6) || @inputs.chance(600)
    end

    def slot
      @inputs.below(POOL.size)
    end

    # An operation for a callback, without callbacks of its own.
    def nested(slot = self.slot)
      kind = @inputs.pick(NESTED)
      kind = @inputs.pick([:feed_whole, :ask]) if POOL[slot] == :in && @inputs.chance(3)
      kind = @inputs.pick([:layout, :header, :sequence]) if POOL[slot] == :out && @inputs.chance(3)
      __send__(kind, slot)
    end

    # Likewise, while a value of the slot `reading` is read, whose bytes must not change.
    def nested_elsewhere(reading)
      slot = self.slot
      return move(slot) if slot == reading || @model.objects[slot].maxdepth.is_a?(Callers::OwnInteger)
      __send__(@inputs.pick(NESTED - [:copy]), slot)
    end

    private

    def op(slot, name, *args)
      Operation.new(slot, name, args)
    end

    def made(slot, name, *args)
      Operation.new(slot, name, args, made: true)
    end

    # --- any buffer -----------------------------------------------------------------------------------------

    def write_wire(slot)
      op(slot, :write_raw, @inputs.wire)
    end

    def write_value(slot)
      value = @inputs.chance(40) ? @inputs.deep_value : @inputs.any_value
      value = [value, { 1 => @inputs.pick(Inputs::UNSUPPORTED) }] if @inputs.chance(25)
      value = @inputs.pick(Inputs::UNSUPPORTED) if @inputs.chance(60)
      op(slot, @inputs.chance(2) ? :<< : :write_object, value)
    end

    def write_bad(slot)
      value = @inputs.pick(Inputs::OTHERS)
      op(slot, :write_raw, value)
    end

    def extract(slot)
      op(slot, :extract_object)
    end

    # Reads or copies the next value, from its start.
    def read_back(slot)
      buf = @model.objects[slot]
      return extract(slot) if buf.pos > LARGE
      @plan = [op(slot, :seek, buf.pos), @inputs.chance(5) ? copy(slot) : extract(slot)]
      @inputs.chance(3) ? write_value(slot) : write_wire(slot)
    end

    def copy(slot)
      return op(slot, :copy_object, @inputs.pick(Inputs::OTHERS)) if @inputs.chance(20)
      made(slot, :copy_object, Callers::Slot.new(@inputs.chance(4) ? self.slot : @inputs.pick(DESTINATIONS)))
    end

    # Moves to a position of interest: the start, the end, a byte of the payload.
    def move(slot)
      buf = @model.objects[slot]
      size = buf.data.bytesize
      to = case @inputs.below(6)
           when 0 then 0
           when 1 then size
           when 2 then buf.payload_end
           when 3 then [buf.pos - 1 - @inputs.below(4), 0].max
           else @inputs.below(size + 1)
           end
      op(slot, @inputs.chance(2) ? :pos= : :seek, to)
    end

    def move_wildly(slot)
      op(slot, @inputs.chance(2) ? :pos= : :seek, @inputs.pick(Inputs::NUMBERS))
    end

    def look(slot)
      size = @model.objects[slot].data.bytesize
      case @inputs.below(4)
      when 0 then op(slot, :pos)
      when 1 then op(slot, :payload_size)
      when 2 then op(slot, :index_within_payload?, @inputs.pick(Inputs::NUMBERS))
      else op(slot, :index_within_payload?, @inputs.below(size + 3))
      end
    end

    # Makes the storage grow while a copy to the same buffer is in progress.
    def at_capacity(slot)
      start = CAPACITY - @inputs.below(30)
      last = case @inputs.below(4)
             when 0 then hostile_write(slot)
             when 1 then copy(slot)
             else made(slot, :copy_object, Callers::Slot.new(slot))
             end
      @plan = [write_wire(slot), op(slot, :seek, start), last]
      op(slot, :seek, start)
    end

    def to_payload(slot)
      op(slot, :seek_payload_start)
    end

    def to_bytes(slot)
      op(slot, :to_str)
    end

    def reset(slot)
      op(slot, :reset)
    end

    def limit(slot)
      case @inputs.below(16)
      when 0, 1 then op(slot, :maxdepth)
      when 2 then op(slot, :maxdepth=, @inputs.pick(Inputs::NUMBERS))
      when 3, 4 then op(slot, :maxdepth=, @inputs.below(5))
      when 5 then op(slot, :maxdepth=, 70 + @inputs.below(100))
      else op(slot, :maxdepth=, 64)
      end
    end

    def symbols(slot)
      return op(slot, :preserve_symbols_on_extract) if @inputs.chance(4)
      op(slot, :preserve_symbols_on_extract=, @inputs.pick([false, true, nil, 0, "x"]))
    end

    def start_over(slot)
      op(slot, @inputs.chance(8) ? :freeze : :initialize)
    end

    def arity(slot)
      name = @inputs.pick([:pos, :reset, :write_raw, :extract_object, :copy_object, :<<, :to_str, :seek, :initialize])
      op(slot, name, *[1] * (2 + @inputs.below(2)))
    end

    def duplicate(slot)
      POOL[slot].to_s.start_with?("own") ? look(slot) : op(slot, @inputs.pick([:dup, :clone]))
    end

    # --- outbound frames ------------------------------------------------------------------------------------

    def sequence(slot)
      return op(slot, @inputs.pick([:next_seq, :inc_seq])) unless @inputs.chance(3)
      op(slot, :next_seq=, @inputs.pick(Inputs::NUMBERS))
    end

    def layout(slot)
      readers = [:using_12byte_header?, :configured_header_len, :configured_max_data_len]
      return op(slot, @inputs.pick(readers)) if @inputs.chance(2)
      op(slot, :use_12byte_header=, @inputs.pick([true, false, nil, 0, "x"]))
    end

    def header(slot)
      op(slot, :compute_frame_header)
    end

    # Feeds this frame to an inbound frame as a stream.
    def send_frame(slot)
      @plan = [write_value(slot), header(slot), Operation.new(slot, :to_str, [], purpose: :send), op(slot, :inc_seq)]
      op(slot, :reset)
    end

    def sent(outcome)
      @streams[in_slot] = [outcome[1], 0] if outcome[0] == :value
    end

    def in_slot
      @inputs.pick(POOL.each_index.select { |slot| POOL[slot] == :in })
    end

    # --- inbound frames -------------------------------------------------------------------------------------

    # Continues the stream, mostly in chunks that end anywhere.
    def feed(slot)
      bytes, offset = @streams[slot] ||= [@inputs.stream, 0]
      return feed_whole(slot) if bytes.empty?
      args = @inputs.chance(4) ? [bytes, offset] : [bytes[offset, 1 + @inputs.below(24)], 0]
      Operation.new(slot, :assemble, args, purpose: :feed)
    end

    def feed_whole(slot)
      bytes = @inputs.stream
      op(slot, :assemble, bytes, @inputs.chance(3) ? @inputs.below(bytes.bytesize + 1) : 0)
    end

    def fed(slot, outcome)
      stream = @streams[slot]
      return if outcome[0] != :value || stream.nil?
      stream[1] += outcome[1]
      @streams.delete(slot) if stream[1] >= stream[0].bytesize
      complete = @model.objects[slot].have_complete_frame?
      read(slot) if complete
      @plan << reset(slot) if complete || outcome[1] == 0
    end

    def read(slot)
      @plan << to_payload(slot)
      (1 + @inputs.below(2)).times { @plan << (@inputs.chance(6) ? copy(slot) : extract(slot)) }
    end

    def feed_badly(slot)
      return op(slot, :assemble, @inputs.pick(Inputs::OTHERS), @inputs.pick(Inputs::NUMBERS)) if @inputs.chance(3)
      op(slot, :assemble, @inputs.pick(["", "abc", "\xA5\x01"]), @inputs.pick(Inputs::NUMBERS))
    end

    def ask(slot)
      op(slot, @inputs.pick([:have_complete_frame?, :seq, :payload_size]))
    end

    # --- callbacks ------------------------------------------------------------------------------------------

    def hostile_write(slot)
      made(slot, :write_object, @callers.value)
    end

    def hostile_number(slot)
      names = [:pos=, :seek, :index_within_payload?]
      names << :next_seq= if @model.objects[slot].respond_to?(:next_seq)
      made(slot, @inputs.pick(names), @callers.number(@inputs.pick(Inputs::NUMBERS)))
    end

    def hostile_limit(slot)
      made(slot, :maxdepth=, @callers.number(@inputs.pick([64, 3, 2**40 + 64, -1])))
    end

    def hostile_feed(slot)
      bytes = @inputs.stream
      offset = @callers.number(@inputs.below(bytes.bytesize + 1), :chunk)
      made(slot, :assemble, Callers::Named.new(:chunk, bytes), offset)
    end

    # Writes a value with containers as keys and reads it back, while the keys' hash performs steps. When the hash is
    # called is unspecified, so nothing else may end the reading.
    def hostile_key(slot)
      buf = @model.objects[slot]
      return op(slot, :preserve_symbols_on_extract=, false) if buf.preserve_symbols_on_extract
      return op(slot, :maxdepth=, 64) if buf.maxdepth.is_a?(Callers::OwnInteger)
      return extract(slot) if POOL[slot] == :in || buf.pos > LARGE
      @plan = [op(slot, :seek, buf.pos),
               Operation.new(slot, :extract_object, [], steps: @callers.steps_elsewhere(slot))]
      op(slot, :write_raw, @inputs.keyed_wire)
    end
  end
end
