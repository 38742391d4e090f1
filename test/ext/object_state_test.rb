# frozen_string_literal: true

require_relative "helper"
require_relative "ruby_process"

# Objects in unusual states: uninitialized, frozen, used as keys of a Hash, with the constants of their classes removed.
class ObjectStateTest < ExtTest
  include RubyProcess

  def test_objects_that_were_never_initialized
    code = <<-RUBY
      [PacketBuf, PacketFrameIn, PacketFrameOut].each do |klass|
        buf = klass.allocate
        p [buf.maxdepth, buf.preserve_symbols_on_extract, buf.pos, buf.payload_size, buf.to_str]
        buf.seek(0).write_raw("abc") << [1]
        [:extract_object, :copy_object].each do |name|
          begin
            buf.reset.send(name, *(name == :copy_object ? [PacketBuf.allocate] : []))
          rescue TypeError => error
            puts error.message
          end
        end
      end
      puts (PacketFrameOut.allocate.reset << 1).compute_frame_header.to_str.unpack("H*")
      p PacketFrameIn.allocate.reset.assemble("\\xA5\\x01\\0\\0\\0\\0\\0\\0", 0)
    RUBY
    one = "[nil, nil, 0, 0, \"\"]\n" + "no implicit conversion from nil to integer\n" * 2
    assert_equal one * 3 + "a50100000000000181\n8\n", run_ruby(code)
  end

  def test_frozen_buffers
    buf = buf_of("\x81").freeze
    frozen = defined?(FrozenError) ? FrozenError : RuntimeError
    assert_raises(frozen) { buf.maxdepth = 1 }
    assert_raises(frozen) { buf.preserve_symbols_on_extract = true }
    assert_equal 1, buf.extract_object
    assert_equal "81 82", Hex.encode((buf << 2).to_str), "freezing protects the options, not the bytes"
  end

  def test_buffers_are_equal_to_themselves_only
    buf = PacketBuf.new
    refute_equal PacketBuf.new, buf
    assert_equal 1, { buf => 1 }[buf]
    refute_respond_to buf, :<=>, "buffers have no order" unless Object.method_defined?(:<=>)
  end

  def test_objects_work_without_the_names_of_their_classes
    code = <<-RUBY
      buf, frame = PacketBuf, PacketFrameOut
      [:PacketBuf, :PacketFrame, :PacketFrameIn, :PacketFrameOut].each { |name| VORN::PROTO.send(:remove_const, name) }
      Object.send(:remove_const, :VORN)
      buf, frame = buf.new, frame.new
      buf << [1]
      3.times { GC.start }
      buf.seek(0).copy_object(frame)
      begin
        buf.copy_object(1)
      rescue RuntimeError => error
        puts error.message
      end
      puts frame.to_str.unpack("H*")
    RUBY
    refusal = "packetbuf_copy_object: destination buffer must be PacketBuf or PacketFrameOut"
    assert_equal "#{refusal}\n0a810b\n", run_ruby(code)
  end
end
