# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# The extension's Ruby API is exactly this: names, arities and class tree.
class RegistrationTest < ExtTest
  include RubyProcess

  TREE = {
    PacketBuf => Object,
    PacketFrame => PacketBuf,
    PacketFrameIn => PacketFrame,
    PacketFrameOut => PacketFrame
  }.freeze

  PUBLIC_METHODS = {
    PacketBuf => {
      reset: 0, preserve_symbols_on_extract: 0, :preserve_symbols_on_extract= => 1, maxdepth: 0, :maxdepth= => 1,
      pos: 0, :pos= => 1, seek: 1, index_within_payload?: 1, payload_size: 0, seek_payload_start: 0,
      write_raw: 1, write_object: 1, :<< => 1, extract_object: 0, copy_object: 1, to_str: 0
    },
    PacketFrame => {},
    PacketFrameIn => { assemble: 2, have_complete_frame?: 0, seq: 0 },
    PacketFrameOut => {
      next_seq: 0, :next_seq= => 1, inc_seq: 0, compute_frame_header: 0, :use_12byte_header= => 1,
      using_12byte_header?: 0, configured_header_len: 0, configured_max_data_len: 0
    }
  }.freeze

  PRIVATE_METHODS = {
    PacketBuf => { initialize: 0, initialize_copy: 1 },
    PacketFrame => {},
    PacketFrameIn => { initialize: 0 },
    PacketFrameOut => { initialize: 0 }
  }.freeze

  def test_class_tree
    TREE.each { |klass, superclass| assert_equal [Class, superclass], [klass.class, klass.superclass], klass }
    assert_equal [Module, Module], [VORN.class, VORN::PROTO.class]
    assert_equal TREE.keys.map(&:name),
                 %w[PacketBuf PacketFrame PacketFrameIn PacketFrameOut].map { |name| "VORN::PROTO::#{name}" }
  end

  def test_no_other_constants
    code = "p VORN.constants, VORN::PROTO.constants.sort, VORN::PROTO::PacketBuf.constants"
    assert_equal "[:PROTO]\n[:PacketBuf, :PacketFrame, :PacketFrameIn, :PacketFrameOut]\n[]\n", run_ruby(code)
  end

  def test_methods_and_arities
    TREE.each_key do |klass|
      arities = lambda { |names| names.map { |name| [name, klass.instance_method(name).arity] }.sort }
      assert_equal PUBLIC_METHODS[klass].sort, arities.call(klass.public_instance_methods(false)), klass
      assert_equal PRIVATE_METHODS[klass].sort, arities.call(klass.private_instance_methods(false)), klass
      assert_empty klass.protected_instance_methods(false)
      assert_empty klass.singleton_methods(false) - [:new]
    end
  end

  def test_wrong_number_of_arguments
    instances = [PacketBuf.new, PacketFrameIn.new, PacketFrameOut.new]
    instances.each do |instance|
      methods = instance.class.ancestors.map { |klass| PUBLIC_METHODS.fetch(klass, {}) }.inject(:merge)
      methods.each do |name, arity|
        assert_raises(ArgumentError, name.to_s) { instance.send(name, *[0] * (arity + 1)) }
        assert_raises(ArgumentError, name.to_s) { instance.send(name, *[0] * (arity - 1)) } if arity > 0
      end
    end
  end

  def test_aliases_are_the_same_method
    { :pos= => :seek, write_object: :<< }.each do |name, other|
      assert_equal PacketBuf.instance_method(name), PacketBuf.instance_method(other)
    end
  end

  def test_loading_a_second_time_does_nothing
    refute require("vorn_rpc_ext")
  end

  def test_loading_prints_no_warning
    assert_equal ["", ""], run_ruby_with_errors("PacketBuf.new << { 1 => [2.5] }")
  end

  def test_only_the_init_function_is_exported
    assert_equal ["Init_vorn_rpc_ext"], exported(EXTENSION)
  end

  def test_ractors_may_use_it
    skip "no Ractor in Ruby #{RUBY_VERSION}" unless defined?(Ractor)
    code = <<-RUBY
      ractors = [1, 2].map do |n|
        Ractor.new(n) { |i| buf = VORN::PROTO::PacketBuf.new << { i => :v }; buf.seek(0).extract_object }
      end
      p ractors.map { |r| r.respond_to?(:value) ? r.value : r.take } == [{ 1 => "v" }, { 2 => "v" }]
    RUBY
    assert_equal "true\n", run_ruby(code, "-W:no-experimental")
  end

  # --- copies and foreign objects ------------------------------------------------------------------------

  class OwnBuf < PacketBuf
  end

  def test_objects_are_not_copied
    [PacketBuf, PacketFrameIn, PacketFrameOut, OwnBuf].each do |klass|
      buf = klass.new << 1
      [:dup, :clone].each { |name| assert_raises_with(TypeError, "can't copy #{klass}") { buf.send(name) } }
      refusal = assert_raises(TypeError) { Marshal.dump(buf) }
      assert_match(/no _dump_data is defined for class #{klass}/, refusal.message)
    end
  end

  def test_nothing_is_copied_over_an_object
    buf = PacketBuf.new << 1
    other = PacketBuf.new << 2
    assert_raises_with(TypeError, "can't copy VORN::PROTO::PacketBuf") { buf.send(:initialize_copy, other) }
    assert_equal "\x81".b, buf.to_str
  end

  def test_methods_do_not_bind_to_other_objects
    assert_raises(TypeError) { PacketBuf.instance_method(:pos).bind(Object.new) }
    assert_raises(TypeError) { PacketFrameIn.instance_method(:seq).bind(PacketFrameOut.new) }
    assert_raises(TypeError) { PacketFrameOut.instance_method(:inc_seq).bind(PacketBuf.new) }
  end
end
