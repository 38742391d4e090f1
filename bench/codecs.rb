# frozen_string_literal: true

require "json"
require "vorn_rpc"

# Vorn RPC and its peers, each as a program would call it.
#
# use is one of
#   reused      Strings as keys; ours with one buffer and two frames for all messages
#   new_buffer  the same as reused, but with a new buffer, and new frames, for each message
#   symbol_keys, symbol_values  the same as reused, but Symbols come back as Symbols: keys, or values
module Codecs
  # Procs that take a value or bytes. A codec that cannot do something raises or gives another value back: the
  # benchmark leaves it out.
  Codec = Struct.new(:name, :version, :encode, :decode, :round_trip)

  LOADED = %w[msgpack oj cbor json].select do |library|
    begin
      require library
      true
    rescue LoadError
      warn "#{library} is not installed: left out"
    end
  end

  module_function

  def of(use)
    [ours(use)] + (LOADED + ["marshal"]).map { |name| peer(name, *send(name, use)) }
  end

  def peer(name, version, encode, decode)
    Codec.new(name, version, encode, decode, ->(value) { decode.call(encode.call(value)) })
  end

  SYMBOLS = %i[symbol_keys symbol_values].freeze
  CHUNK = 64 * 1024

  def ours(use)
    if use == :new_buffer
      encode = ->(value) { (VORN::PROTO::PacketBuf.new << value).to_str }
      decode = ->(bytes) { read(VORN::PROTO::PacketBuf.new, bytes) }
      round_trip = lambda do |value|
        through_frames(VORN::PROTO::PacketFrameOut.new, VORN::PROTO::PacketFrameIn.new, value)
      end
    else
      buf = VORN::PROTO::PacketBuf.new
      frame_out = VORN::PROTO::PacketFrameOut.new
      frame_in = VORN::PROTO::PacketFrameIn.new
      buf.preserve_symbols_on_extract = frame_in.preserve_symbols_on_extract = SYMBOLS.include?(use)
      encode = lambda do |value|
        buf.reset
        buf << value
        buf.to_str
      end
      decode = ->(bytes) { read(buf.reset, bytes) }
      round_trip = ->(value) { through_frames(frame_out, frame_in, value) }
    end
    Codec.new("vorn", VORN::VERSION, encode, decode, round_trip)
  end

  def read(buf, bytes)
    buf.write_raw(bytes)
    buf.pos = 0
    buf.extract_object
  end

  # Sends the value through a frame that arrives in chunks. A short stream is a single chunk.
  def through_frames(frame_out, frame_in, value)
    frame_out.reset
    frame_out << value
    stream = frame_out.compute_frame_header.to_str
    frame_in.reset
    offset = 0
    while offset < stream.bytesize
      chunk = stream.bytesize > CHUNK ? stream.byteslice(offset, CHUNK) : stream
      offset += frame_in.assemble(chunk, 0)
    end
    frame_in.seek_payload_start
    frame_in.extract_object
  end

  def msgpack(use)
    return [MessagePack::VERSION, *msgpack_with_symbols] if use == :symbol_values
    load = use == :symbol_keys ? ->(s) { MessagePack.load(s, symbolize_keys: true) } : MessagePack.method(:load)
    [MessagePack::VERSION, MessagePack.method(:dump), load]
  end

  def msgpack_with_symbols
    factory = MessagePack::Factory.new
    factory.register_type(0, Symbol)
    coder = factory.respond_to?(:pool) ? factory.pool(1) : factory # a pool keeps its packer and unpacker
    return [coder.method(:dump), coder.method(:load)] if coder.respond_to?(:dump)
    [->(v) { factory.packer.write(v).to_s }, ->(s) { factory.unpacker.feed(s).read }] # an old one
  end

  def oj(use)
    dump, load = { symbol_keys: [{ mode: :compat }, { mode: :strict, symbol_keys: true }],
                   symbol_values: [{ mode: :object }, { mode: :object }] }
                 .fetch(use, [{ mode: :compat }, { mode: :strict }])
    [Oj::VERSION, ->(v) { Oj.dump(v, dump) }, ->(s) { Oj.load(s, load) }]
  end

  def cbor(use)
    load = use == :symbol_keys ? ->(s) { CBOR.load(s, symbolize_keys: true) } : CBOR.method(:load)
    [CBOR::VERSION, CBOR.method(:dump), load]
  end

  def json(use)
    parse = use == :symbol_keys ? ->(s) { JSON.parse(s, symbolize_names: true) } : JSON.method(:parse)
    [JSON::VERSION, JSON.method(:generate), parse]
  end

  def marshal(_use)
    ["#{Marshal::MAJOR_VERSION}.#{Marshal::MINOR_VERSION}", Marshal.method(:dump), Marshal.method(:load)]
  end
end
