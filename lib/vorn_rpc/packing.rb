# frozen_string_literal: true

require "vorn_rpc"
require "vorn_rpc/packing/errors"
require "vorn_rpc/packing/ready_made"

module VORN
  # Carries values that the wire has no type for: as a Hash whose only key is the name of their type behind a tilde.
  # Each side registers the types that it sends and accepts; nothing is built that was not registered.
  #
  #   packing = VORN::Packing.new(:integer, :time)
  #   packing.pack([Time.at(0).utc, 2**40])  # => [{"~time" => [0, 0, 0, nil]}, {"~integer" => "1099511627776"}]
  #   packing.unpack(packing.pack("at" => Time.at(0)))  # => {"at" => Time.at(0)}
  #
  # A packing does no input or output, and holds nothing but its types. It is frozen: threads may share one.
  class Packing
    # Levels of a packed value, scalars included: as many as the wire's.
    MAX_DEPTH = 64

    # The names of the ready-made types:
    #
    # integer:: Integers that do not fit 32 bits
    # time::    Time, to the nanosecond, with its offset from UTC; what is finer, and the name of the zone, are lost
    # date::    Date, not DateTime; the day of the calendar reform is lost
    # decimal:: BigDecimal that is finite, with an exponent from -4096 to 4096
    # rational:: Rational
    #
    # Numbers have up to 4096 digits, and a Rational twice as many.
    READY_MADE = ReadyMade::TYPES.keys.freeze

    # Takes the names of ready-made types, and yields self for types of your own.
    #
    #   point = Struct.new(:x, :y)
    #   packing = VORN::Packing.new(:rational) { |types| types.struct("point", point) }
    #   packing.pack(point.new(1, Rational(1, 2)))  # => {"~point" => [1, {"~rational" => "1/2"}]}
    #
    # Raises ArgumentError for a name that is none of READY_MADE.
    def initialize(*ready_made)
      @by_class = {}
      @by_tag = {}
      ready_made.each do |name|
        maker = ReadyMade::TYPES[name] or raise ArgumentError, "no ready-made type #{name.inspect}"
        maker.call(self)
      end
      yield self if block_given?
      @by_class.freeze
      @by_tag.freeze
      freeze
    end

    # Registers a type. To be called in the block of #new.
    #
    # tag::    its name on the wire: printable ASCII, without blanks and tildes
    # klass::  objects of exactly this class are packed. Those of subclasses are not: they would arrive as its own. Of
    #          Integer, those that do not fit 32 bits are packed
    # pack::   called with the object, returns what the wire or a registered type can carry
    # unpack:: called with what has arrived, unpacked already, returns the object. A peer may have sent anything there.
    #          What it raises becomes Malformed
    #
    #   pack = ->(range) { [range.begin, range.end] }
    #   unpack = ->(ends) { Range.new(*ends) }
    #   packing = VORN::Packing.new { |types| types.type("range", Range, pack: pack, unpack: unpack) }
    #   packing.pack([1..3])  # => [{"~range" => [1, 3]}]
    #   packing.unpack("~range" => [1, 3])  # => 1..3
    #   packing.unpack("~range" => nil)  # raises VORN::Packing::Malformed "cannot unpack the type range: ArgumentError"
    #
    # Raises ArgumentError for another tag, for one that is taken, for a class that has a type or that the wire carries.
    def type(tag, klass, pack:, unpack:)
      raise ArgumentError, "a tag is printable ASCII without blanks and tildes" unless String === tag && TAG =~ tag
      raise ArgumentError, "not a class: #{klass.inspect}" unless Class === klass
      raise ArgumentError, "the wire carries #{klass}" if ON_THE_WIRE.include?(klass)
      raise ArgumentError, "the tag #{tag} is taken" if @by_tag.key?(tag)
      raise ArgumentError, "#{klass} has a type" if @by_class.key?(klass)
      type = Type.new("~#{tag}".freeze, pack, unpack).freeze
      @by_class[klass] = @by_tag[tag] = type
      self
    end

    # Registers a Struct, or a Data, which is sent as an Array of its members. To be called in the block of #new. What
    # arrives has to have as many members; `new` is called with them.
    #
    #   point = Struct.new(:x, :y)
    #   packing = VORN::Packing.new { |types| types.struct("point", point) }
    #   packing.unpack(packing.pack(point.new(1, 2)))  # => point.new(1, 2)
    #   packing.unpack("~point" => [1])  # raises VORN::Packing::Malformed
    #
    # Raises as #type does.
    def struct(tag, klass)
      names = klass.members
      keywords = keyword_init?(klass)
      type(tag, klass,
           pack: ->(struct) { names.map { |name| struct.public_send(name) } },
           unpack: lambda do |members|
             raise ArgumentError unless Array === members && members.size == names.size
             keywords ? klass.new(**Hash[names.zip(members)]) : klass.new(*members)
           end)
    end

    # The value as the wire can carry it, without loss but for encodings and Symbols. Containers are copied; their
    # contents are not. A key that begins with a tilde, as tags do, gets another one.
    #
    #   VORN::Packing.new.pack("~time" => [1, { 2.5 => :ok }])  # => {"~~time" => [1, {2.5 => :ok}]}
    #
    # Raises UnknownType for what neither the wire nor a type carries, Integers beyond 32 bits among it, TooDeep,
    # RangeError for a number that is too long for a ready-made type, and what a type's `pack` raises.
    def pack(value)
      pack_value(value, MAX_DEPTH)
    end

    # The value that was packed, from what a peer has sent.
    #
    #   packing = VORN::Packing.new(:time)
    #   packing.unpack("~~time" => [1])  # => {"~time" => [1]}
    #   packing.unpack("~time" => [0, 0, 0, 3600]).utc_offset  # => 3600
    #   packing.unpack("~date" => 0)  # raises VORN::Packing::UnknownType "no type is registered for the tag \"date\""
    #
    # Raises UnknownType, Malformed and TooDeep, each an Error.
    def unpack(value)
      unpack_value(value, MAX_DEPTH)
    end

    private

    Type = Struct.new(:key, :packer, :unpacker)

    TAG = /\A[!-}]+\z/
    TILDE = "~".ord
    # What a message shows of a peer's tag.
    SHOWN = 40

    LEAST = -2**31
    MOST = 2**31 - 1
    ON_THE_WIRE = [NilClass, TrueClass, FalseClass, Float, String, Symbol, Array, Hash].freeze
    private_constant :Type, :TAG, :TILDE, :SHOWN, :LEAST, :MOST, :ON_THE_WIRE

    def pack_value(value, levels)
      raise TooDeep, "more than #{MAX_DEPTH} levels" if levels < 1
      if Integer === value
        return value if value <= MOST && value >= LEAST
        type = @by_class[Integer] or raise UnknownType, "no type is registered for Integers beyond 32 bits"
      elsif Object === value
        type = @by_class[value.class]
      end
      return { type.key => pack_value(type.packer.call(value), levels - 1) } if type

      case value
      when String, Symbol, Float, nil, true, false then value
      when Array then value.map { |member| pack_value(member, levels - 1) }
      when Hash then pack_hash(value, levels - 1)
      else raise UnknownType, "no type is registered for #{Object === value ? value.class : BasicObject}"
      end
    end

    # Each key by itself, whatever stands beside it: two keys may become one on the way, a Symbol and a String, say.
    def pack_hash(hash, levels)
      packed = {}
      hash.each do |key, member|
        key = pack_value(key, levels)
        key = escaped(key) if reserved?(key)
        packed[key] = pack_value(member, levels)
      end
      packed
    end

    def unpack_value(value, levels)
      raise TooDeep, "more than #{MAX_DEPTH} levels" if levels < 1
      case value
      when Array then value.map { |member| unpack_value(member, levels - 1) }
      when Hash then unpack_hash(value, levels - 1)
      else value
      end
    end

    def unpack_hash(hash, levels)
      unpacked = {}
      hash.each do |key, member|
        if !reserved?(key)
          key = unpack_value(key, levels)
        elsif key.to_s.getbyte(1) == TILDE
          key = unescaped(key)
        else
          return build(unescaped(key).to_s, hash.size, member, levels)
        end
        unpacked[key] = unpack_value(member, levels)
      end
      unpacked
    end

    # The tag is looked up in what this side has registered, and in nothing else.
    def build(tag, keys, body, levels)
      type = @by_tag[tag]
      raise UnknownType, "no type is registered for the tag #{tag.b[0, SHOWN].inspect}" unless type
      raise Malformed, "the tag #{tag} stands beside other keys" unless keys == 1
      body = unpack_value(body, levels)
      begin
        type.unpacker.call(body)
      rescue Error
        raise
      rescue StandardError => error
        raise Malformed, "cannot unpack the type #{tag}: #{error.class}"
      end
    end

    # By its bytes, since a String on the wire has no other encodings than UTF-8.
    def reserved?(key)
      case key
      when String then key.getbyte(0) == TILDE
      when Symbol then key.to_s.getbyte(0) == TILDE
      end
    end

    def escaped(key)
      text = key.to_s
      encoding = text.encoding == Encoding::UTF_8 ? Encoding::UTF_8 : Encoding::BINARY
      renamed(key, ("~".b << text.b).force_encoding(encoding))
    end

    def unescaped(key)
      text = key.to_s
      renamed(key, text.byteslice(1, text.bytesize))
    end

    def renamed(key, text)
      Symbol === key ? text.to_sym : text
    end

    # Ruby tells since 3.1; before, a Struct with keywords says so when it is shown.
    def keyword_init?(klass)
      return klass.keyword_init? if klass.respond_to?(:keyword_init?)
      klass.inspect.end_with?("(keyword_init: true)")
    end
  end
end
