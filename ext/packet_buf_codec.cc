#include "ext/packet_buf_codec.h"

#include "ext/arguments.h"
#include "ext/buffer_handle.h"
#include "ext/native_guard.h"
#include "ext/object_decoder.h"
#include "ext/object_serializer.h"
#include "ext/vorn_rpc_ext.h"
#include "proto/value_wire.h"

namespace VORN {
namespace EXT {

namespace {

using PROTO::PacketBuf;

ID id_preserve_symbols;
ID id_maxdepth;

// May run Ruby code: @maxdepth is converted with to_int. The receiver is checked before, and looked up after it.
DecodeOptions decode_options(VALUE self) {
  const bool preserve_symbols = RTEST(rb_attr_get(self, id_preserve_symbols));
  return {preserve_symbols, cut_to_int32(rb_attr_get(self, id_maxdepth))};
}

/*
 * call-seq:
 *   buf.preserve_symbols_on_extract -> obj
 *
 * Whether extract_object makes Symbols of symbols. They arrive as UTF-8 Strings by default, so that a peer
 * cannot fill the symbol table.
 *
 *   VORN::PROTO::PacketBuf.new.preserve_symbols_on_extract  # => false
 */
VALUE packetbuf_preserve_symbols(VALUE self) {
  return rb_attr_get(self, id_preserve_symbols);
}

/*
 * call-seq:
 *   buf.preserve_symbols_on_extract = obj -> obj
 *
 * Any value; nil and false mean no.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << :ok
 *   buf.preserve_symbols_on_extract = true
 *   buf.pos = 0
 *   buf.extract_object  # => :ok
 */
VALUE packetbuf_set_preserve_symbols(VALUE self, VALUE value) {
  return rb_ivar_set(self, id_preserve_symbols, value);
}

/*
 * call-seq:
 *   buf.maxdepth -> obj
 *
 * How many levels extract_object and copy_object follow. Every value counts one, scalars included.
 *
 *   VORN::PROTO::PacketBuf.new.maxdepth  # => 64
 */
VALUE packetbuf_maxdepth(VALUE self) {
  return rb_attr_get(self, id_maxdepth);
}

/*
 * call-seq:
 *   buf.maxdepth = obj -> obj
 *
 * Stores any value unchecked; it is converted to a 32-bit number when a value is read. 0 and below refuse
 * everything. Writing has its own, fixed limit of 64.
 *
 * Beyond 10,000 levels, or where the machine stack would end before that, extract_object raises SystemStackError,
 * whatever the limit says.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << [[1]]
 *   buf.maxdepth = 2
 *   buf.pos = 0
 *   buf.extract_object  # raises RuntimeError "decode_next_packetbuf_rbobj: maxdepth exceeded"
 */
VALUE packetbuf_set_maxdepth(VALUE self, VALUE value) {
  return rb_ivar_set(self, id_maxdepth, value);
}

struct WriteObject {
  VALUE self;
  VALUE obj;
};

VALUE write_object(VALUE arg) {
  const WriteObject& write = *reinterpret_cast<const WriteObject*>(arg);
  serialize_object(write.obj, write.self, packet_buf_of(write.self));
  return write.self;
}

VALUE end_write_object(VALUE self) {
  report_storage(self);
  return Qnil;
}

/*
 * call-seq:
 *   buf.write_object(obj) -> buf
 *   buf << obj -> buf
 *
 * Writes nil, true, false, an Integer, a Float, a String, a Symbol, an Array or a Hash, with everything in it.
 * Anything else raises RuntimeError "serialize_rbobj_to_packetbuf: unsupported rb_type", more than 64 levels
 * "serialize_rbobj_to_packetbuf: maxdepth exceeded". A failure, or an interrupt, leaves what was written before it.
 *
 * An immediate Integer is written as its low 32 bits, one on the heap (from 2**62 on) in full up to 64 bits.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << 1 << { "key" => [nil, 1.5] }
 *   buf.to_str.unpack("H*")[0]  # => "8108" + "07036b6579" + "0a00043ff80000000000000b" + "09"
 */
VALUE packetbuf_write_object(VALUE self, VALUE obj) {
  packet_buf_of(self);  // raises here: end_write_object() must not
  // A failure leaves what was written before it, and the storage of that is reported too.
  WriteObject write{self, obj};
  return rb_ensure(VALUEFUNC(write_object), reinterpret_cast<VALUE>(&write), VALUEFUNC(end_write_object), self);
}

/*
 * call-seq:
 *   buf.extract_object -> obj
 *
 * Reads the value at the position and moves behind it. A failure raises RuntimeError, builds nothing and leaves
 * the position where reading stopped.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << [1, "two", nil]
 *   buf.pos = 0
 *   buf.extract_object  # => [1, "two", nil]
 *   buf.extract_object  # raises RuntimeError "decode_next_packetbuf_rbobj: buffer underrun"
 */
VALUE packetbuf_extract_object(VALUE self) {
  packet_buf_of(self);
  const DecodeOptions options = decode_options(self);
  PacketBuf& buf = packet_buf_of(self);
  const VALUE obj = deserialize_packetbuf_single_rbobj(buf, options, false);
  RB_GC_GUARD(self);
  return obj;
}

/*
 * call-seq:
 *   buf.copy_object(dest) -> buf
 *
 * Copies the encoded value at the position to dest's position, byte for byte, and moves both behind it. The
 * value is checked and not built. dest is a PacketBuf or a PacketFrameOut, and no instance of a subclass.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << { "large" => ["value"] }
 *   buf.pos = 0
 *   out = VORN::PROTO::PacketBuf.new
 *   buf.copy_object(out)
 *   out.to_str == buf.to_str  # => true
 */
VALUE packetbuf_copy_object(VALUE self, VALUE dest) {
  packet_buf_of(self);
  const bool accepted =
      RB_TYPE_P(dest, T_DATA) && (rb_obj_class(dest) == cPacketBuf || rb_obj_class(dest) == cPacketFrameOut);
  if (!accepted) {
    rb_raise(rb_eRuntimeError, "packetbuf_copy_object: destination buffer must be PacketBuf or PacketFrameOut");
  }
  PacketBuf& to = packet_buf_of(dest);
  const DecodeOptions options = decode_options(self);
  PacketBuf& buf = packet_buf_of(self);
  const uint64_t start = buf.pos();
  deserialize_packetbuf_single_rbobj(buf, options, true);
  const uint64_t end = buf.pos();
  if (end <= start) {
    rb_raise(rb_eRuntimeError,
             "packetbuf_copy_object: internal error: deserialize_packetbuf_single_rbobj did not advance pos");
  }
  native_guard([&] { to.write_bytes(buf.data().data() + start, end - start); });
  RB_GC_GUARD(self);
  report_storage(dest);
  return self;
}

}  // namespace

void set_default_options(VALUE buf) {
  rb_ivar_set(buf, id_preserve_symbols, Qfalse);
  rb_ivar_set(buf, id_maxdepth, INT2FIX(PROTO::DEFAULT_MAX_DEPTH));
}

void init_packet_buf_codec() {
  id_preserve_symbols = rb_intern("@preserve_symbols_on_extract");
  id_maxdepth = rb_intern("@maxdepth");

  // RDoc knows the classes that the same file defines.
  const VALUE mVorn = rb_define_module("VORN");
  const VALUE mProto = rb_define_module_under(mVorn, "PROTO");
  const VALUE klass = rb_define_class_under(mProto, "PacketBuf", rb_cObject);
  rb_define_method(klass, "preserve_symbols_on_extract", VALUEFUNC(packetbuf_preserve_symbols), 0);
  rb_define_method(klass, "preserve_symbols_on_extract=", VALUEFUNC(packetbuf_set_preserve_symbols), 1);
  rb_define_method(klass, "maxdepth", VALUEFUNC(packetbuf_maxdepth), 0);
  rb_define_method(klass, "maxdepth=", VALUEFUNC(packetbuf_set_maxdepth), 1);
  rb_define_method(klass, "write_object", VALUEFUNC(packetbuf_write_object), 1);
  rb_define_alias(klass, "<<", "write_object");
  rb_define_method(klass, "extract_object", VALUEFUNC(packetbuf_extract_object), 0);
  rb_define_method(klass, "copy_object", VALUEFUNC(packetbuf_copy_object), 1);
}

}  // namespace EXT
}  // namespace VORN
