# frozen_string_literal: true

module Model
  # Raised when a write would make a buffer too large for a test; the extension has no such limit. Not a StandardError,
  # so that no rescue of the model's errors catches it.
  class TooLarge < Exception
  end

  # Bytes, a position, and a payload, which in this class is all of the bytes.
  class PacketBuf
    LARGEST = 300_000

    attr_reader :data, :maxdepth, :preserve_symbols_on_extract

    # The bytes and the position exist even if `initialize` never runs.
    def self.allocate
      buf = super
      buf.send(:construct)
      buf
    end

    def self.new(*args)
      buf = allocate
      buf.send(:initialize, *args)
      buf
    end

    # The extension's class, as error texts name it.
    def self.modelled
      "VORN::PROTO::" + name[/\w+\z/]
    end

    def initialize
      self.preserve_symbols_on_extract = false
      self.maxdepth = 64
      self
    end

    # --- options, which are all that freezing protects -----------------------------------------------------

    def freeze
      @options_are_frozen = true
      self
    end

    def preserve_symbols_on_extract=(value)
      refuse_when_frozen
      @preserve_symbols_on_extract = value
    end

    def maxdepth=(value)
      refuse_when_frozen
      @maxdepth = value
    end

    # --- position and payload ------------------------------------------------------------------------------

    def reset
      @pos = 0
      self
    end

    def pos
      @pos & Conversions::CUT
    end

    def pos=(value)
      @pos = Conversions.unsigned_32(value)
      self
    end
    alias seek pos=

    def payload_start
      0
    end

    def payload_end
      @data.bytesize
    end

    def payload_size
      (payload_end - payload_start) & Conversions::CUT
    end

    def seek_payload_start
      @pos = payload_start
      self
    end

    def readable?(index)
      index >= payload_start && index < payload_end && index < @data.bytesize
    end

    def index_within_payload?(value)
      readable?(Conversions.unsigned_32(value))
    end

    def to_str
      return "".b if @pos == 0
      raise "packetbuf_to_str: pos outside payload" unless readable?(@pos - 1)
      @data[0, @pos]
    end

    # --- writing -------------------------------------------------------------------------------------------

    # Overwrites. A gap between the end and the position is filled with zeros.
    def write_bytes(bytes)
      return if bytes.empty?
      grow_to(@pos + bytes.bytesize)
      @data[@pos, bytes.bytesize] = bytes
      @pos += bytes.bytesize
    end

    def write_raw(value)
      raise "packetbuf_write_raw: value to write must be String" unless String === value
      write_bytes([value].pack("a*"))
      self
    end

    def write_object(value)
      Encoder.new(self).write(value)
      self
    end
    alias << write_object

    # --- reading -------------------------------------------------------------------------------------------

    def extract_object
      preserve_symbols = @preserve_symbols_on_extract ? true : false
      Decoder.read(self, Conversions.signed_32(@maxdepth), preserve_symbols)
    end

    def copy_object(destination)
      unless PacketBuf === destination && [PacketBuf, PacketFrameOut].include?(destination.class)
        raise "packetbuf_copy_object: destination buffer must be PacketBuf or PacketFrameOut"
      end
      maxdepth = Conversions.signed_32(@maxdepth)
      start = @pos
      Decoder.check(self, maxdepth)
      destination.write_bytes(@data[start...@pos])
      self
    end

    # --- copying -------------------------------------------------------------------------------------------

    def dup
      raise TypeError, "can't copy #{self.class.modelled}"
    end
    alias clone dup

    # --- for the tests -------------------------------------------------------------------------------------

    # The complete state of this object, for restore().
    def saved
      instance_variables.map { |name| [name, value_of(name)] }
    end

    def restore(saved)
      saved.each { |name, value| instance_variable_set(name, value) }
    end

    private

    def construct
      @data = "".b
      @pos = 0
      @maxdepth = nil
      @preserve_symbols_on_extract = nil
      @options_are_frozen = false
    end

    def value_of(name)
      value = instance_variable_get(name)
      name == :@data ? value.dup : value
    end

    def grow_to(size)
      raise TooLarge if size > LARGEST
      @data << ("\0".b * (size - @data.bytesize)) if size > @data.bytesize
    end

    def refuse_when_frozen
      return unless @options_are_frozen
      error = defined?(FrozenError) ? FrozenError : RuntimeError
      raise error, "can't modify frozen #{self.class.modelled}"
    end
  end

  # Has no instances.
  class PacketFrame
    def self.new(*)
      allocate
    end

    def self.allocate
      raise NotImplementedError,
            "naked PacketFrame instancing not supported; use PacketFrameIn or PacketFrameOut"
    end
  end
end
