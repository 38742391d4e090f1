# frozen_string_literal: true

require_relative "helper"
require "vorn_rpc/packing"
require "vorn_rpc/rpc"
begin
  require "rbs"
rescue LoadError
  nil # setup skips the tests
end

# The signatures in sig/ and the methods must match, both ways.
class SignaturesTest < Minitest::Test
  FOLDER = File.expand_path("../../sig", __dir__)
  CLASSES = [
    VORN::PROTO::PacketBuf, VORN::PROTO::PacketFrame, VORN::PROTO::PacketFrameOut, VORN::PROTO::PacketFrameIn
  ].freeze

  STREAM = VORN::Stream
  STREAM_CLASSES = [STREAM::Decoder, STREAM::Encoder, STREAM::Reader, STREAM::Writer, STREAM::Error,
                    STREAM::DamagedStream, STREAM::TruncatedStream, STREAM::MessageTooLarge, STREAM::Damage].freeze
  PACKING = VORN::Packing
  PACKING_CLASSES = [PACKING, PACKING::Error, PACKING::UnknownType, PACKING::Malformed, PACKING::TooDeep].freeze
  STATISTICS = STREAM::Decoder::Statistics

  RPC = VORN::RPC
  RPC_CLASSES = [RPC::Client, RPC::Server, RPC::Error, RPC::TimedOut, RPC::ConnectionLost, RPC::BadMessage,
                 RPC::RemoteError, RPC::Refused].freeze

  # Parsed before the first test runs: other tests compact the heap, and the parser of rbs 2.1 crashes when its objects
  # are moved.
  if defined?(RBS::EnvironmentLoader)
    loader = RBS::EnvironmentLoader.new
    loader.add(path: Pathname(FOLDER))
    ENVIRONMENT = RBS::Environment.from_loader(loader).resolve_type_names
  end

  def setup
    skip "Ruby #{RUBY_VERSION} has no rbs gem" unless defined?(RBS::EnvironmentLoader)
  end

  def builder
    @builder ||= RBS::DefinitionBuilder.new(env: ENVIRONMENT)
  end

  def type_name(mod)
    parts = mod.name.split("::").map(&:to_sym)
    namespace = RBS::Namespace.new(path: parts[0..-2], absolute: true)
    RBS::TypeName.new(name: parts.last, namespace: namespace)
  end

  # Without the inherited methods.
  def signatures(mod)
    builder.build_instance(type_name(mod)).methods.select { |_, method| method.defined_in == type_name(mod) }
  end

  def test_every_type_is_known
    builder = self.builder
    CLASSES.each do |mod|
      builder.build_instance(type_name(mod)).each_type { |type| builder.validate_type_presence(type) }
    end
  end

  def test_methods
    CLASSES.each do |mod|
      defined = mod.public_instance_methods(false) + mod.private_instance_methods(false)
      assert_equal defined.sort, signatures(mod).keys.sort, mod.name
      assert_empty mod.singleton_methods(false), mod.name
    end
  end

  def test_methods_above_the_core
    [*STREAM_CLASSES, *PACKING_CLASSES, *RPC_CLASSES].each do |klass|
      defined = klass.public_instance_methods(false)
      defined += [:initialize] if klass.private_instance_methods(false).include?(:initialize)
      declared = signatures(klass)
      assert_equal defined.sort, declared.keys.sort, klass.name
      defined.each do |name|
        parameters = klass.instance_method(name).parameters
        declared[name].method_types.each do |type|
          function = type.type
          label = "#{klass}##{name}"
          assert_equal parameters.count { |kind, _| kind == :req }, function.required_positionals.size, label
          assert_equal parameters.any? { |kind, _| kind == :rest }, !function.rest_positionals.nil?, label
          next if parameters.any? { |kind, _| kind == :keyrest } # those of another class
          assert_equal parameters.select { |kind, _| kind == :key }.map(&:last), function.optional_keywords.keys, label
          required = parameters.select { |kind, _| kind == :keyreq }.map(&:last)
          assert_equal required, function.required_keywords.keys, label
        end
      end
    end
    assert_empty STATISTICS.members - signatures(STATISTICS).keys
  end

  def test_visibility_and_parameters
    CLASSES.each do |mod|
      signatures(mod).each do |name, method|
        label = "#{mod}##{name}"
        # Ruby makes `initialize` private, whatever the signature says.
        assert_equal mod.private_method_defined?(name), method.private?, label unless name == :initialize
        method.method_types.each do |type|
          function = type.type
          assert_equal mod.instance_method(name).arity, function.required_positionals.size, label
          assert_equal [[], nil, {}, {}], [function.optional_positionals, function.rest_positionals,
                                           function.required_keywords, function.optional_keywords], label
        end
      end
    end
  end

  def test_superclasses_and_constants
    [*CLASSES, *STREAM_CLASSES, *PACKING_CLASSES, *RPC_CLASSES, STATISTICS].each do |mod|
      declared = builder.ancestor_builder.one_instance_ancestors(type_name(mod)).super_class.name.to_s
      assert_equal mod.superclass.name, declared.sub(/\A::/, ""), mod.name
    end
    declared = ENVIRONMENT.constant_decls.keys.map(&:to_s).grep(/\A::VORN::/).sort
    owners = [VORN, VORN::PROTO, VORN::Stream, VORN::RPC, *CLASSES, *STREAM_CLASSES, *PACKING_CLASSES, *RPC_CLASSES]
    own = owners.flat_map { |mod| mod.constants(false).map { |name| "::#{mod}::#{name}" } }
    modules = own.select { |name| Object.const_get(name.sub(/\A::/, "")).is_a?(Module) }
    assert_equal (own - modules).sort, declared
    assert_equal modules.sort, ENVIRONMENT.class_decls.keys.map(&:to_s).grep(/\A::VORN::/).sort
  end

  def test_results_have_the_declared_types
    buf = VORN::PROTO::PacketBuf.new
    out = VORN::PROTO::PacketFrameOut.new
    frame = VORN::PROTO::PacketFrameIn.new
    out.reset
    stream = (out << [1]).compute_frame_header.to_str
    frame.reset
    calls = [
      [buf, :reset], [buf, :write_object, { "key" => :value }], [buf, :<<, 1], [buf, :write_raw, "bytes"], [buf, :pos],
      [buf, :pos=, 0], [buf, :extract_object], [buf, :seek, 0], [buf, :copy_object, VORN::PROTO::PacketBuf.new],
      [buf, :to_str], [buf, :seek_payload_start], [buf, :index_within_payload?, 0], [buf, :payload_size],
      [buf, :maxdepth], [buf, :maxdepth=, 3], [buf, :preserve_symbols_on_extract],
      [buf, :preserve_symbols_on_extract=, true], [out, :next_seq], [out, :next_seq=, 7], [out, :inc_seq],
      [out, :use_12byte_header=, nil], [out, :compute_frame_header], [out, :using_12byte_header?],
      [out, :configured_header_len], [out, :configured_max_data_len], [frame, :assemble, stream, 0],
      [frame, :have_complete_frame?], [frame, :seq]
    ]
    checked = calls.map do |receiver, name, *arguments|
      result = receiver.__send__(name, *arguments)
      type = builder.build_instance(type_name(receiver.class)).methods[name].method_types.first.type.return_type
      assert fits?(result, type, receiver), "#{receiver.class}##{name} returns #{result.inspect}, declared #{type}"
      name
    end
    assert_empty CLASSES.flat_map { |mod| mod.public_instance_methods(false) } - checked
  end

  def fits?(result, type, receiver)
    case type.to_s
    when "self" then result.equal?(receiver)
    when "bool" then [true, false].include?(result)
    when "Integer", "::Integer" then result.is_a?(Integer)
    when "String", "::String" then result.is_a?(String)
    when "::VORN::value"
      [NilClass, TrueClass, FalseClass, Integer, Float, String, Symbol, Array, Hash].any? { |c| c === result }
    when "untyped" then true
    end
  end
end
