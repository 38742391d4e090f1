#include "ext/arguments.h"
#include "ext/native_guard.h"
#include "ext/buffer_handle.h"
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

VALUE packetbuf_allocate(VALUE klass) {
  return allocate_native<PacketBuf>(klass, packet_buf_type, "failed newing PacketBuf",
                                    "exception newing PacketBuf");
}

// May run Ruby code: @maxdepth is converted with to_int.
DecodeOptions decode_options(VALUE self) {
  const bool preserve_symbols = RTEST(rb_attr_get(self, id_preserve_symbols));
  return {preserve_symbols, to_int32(rb_attr_get(self, id_maxdepth))};
}

}  // namespace

/*
 * call-seq:
 *   VORN::PROTO::PacketBuf.new -> buf
 *
 * An empty buffer at position 0, with maxdepth 64 and preserve_symbols_on_extract false. It takes no arguments.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.pos       # => 0
 *   buf.maxdepth  # => 64
 */
VALUE packetbuf_initialize(VALUE self) {
  rb_ivar_set(self, id_preserve_symbols, Qfalse);
  rb_ivar_set(self, id_maxdepth, INT2FIX(PROTO::DEFAULT_MAX_DEPTH));
  return self;
}

namespace {

// A copy would have to share or to double bytes, position and a half-read frame. It is refused rather than
// handed out empty.
VALUE packetbuf_initialize_copy(VALUE self, VALUE) {
  rb_raise(rb_eTypeError, "can't copy %s", rb_obj_classname(self));
  return Qnil;  // not reached: older headers do not say so
}

/*
 * call-seq:
 *   buf.reset -> buf
 *
 * Back to the starting position. The bytes stay stored and are overwritten by what is written next. For a
 * PacketFrameOut the start lies behind the header; a PacketFrameIn forgets its frame and looks for the next.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc")
 *   buf.reset.pos     # => 0
 *   buf.payload_size  # => 3
 */
VALUE packetbuf_reset(VALUE self) {
  PacketBuf& buf = packet_buf_of(self);
  native_guard([&] { buf.reset(); });
  return self;
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

/*
 * call-seq:
 *   buf.pos -> integer
 *
 * Where the next byte is written or read, as a 32-bit number.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << nil << true
 *   buf.pos  # => 2
 */
VALUE packetbuf_pos(VALUE self) {
  return from_low_32_bits(packet_buf_of(self).pos());
}

/*
 * call-seq:
 *   buf.pos = integer -> integer
 *   buf.seek(integer) -> buf
 *
 * Moves the position to the low 32 bits of the argument, without a check: a write beyond the stored bytes
 * fills the gap with zeros.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.seek(2).write_raw("x").to_str  # => "\x00\x00x"
 */
VALUE packetbuf_set_pos(VALUE self, VALUE pos) {
  PacketBuf& buf = packet_buf_of(self);
  buf.set_pos(to_uint32(pos));
  return self;
}

/*
 * call-seq:
 *   buf.index_within_payload?(integer) -> true or false
 *
 * Whether the byte at this index (its low 32 bits) can be read: it is stored, and belongs to the payload.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc")
 *   buf.index_within_payload?(2)  # => true
 *   buf.index_within_payload?(3)  # => false
 */
VALUE packetbuf_index_within_payload(VALUE self, VALUE index) {
  const PacketBuf& buf = packet_buf_of(self);
  return buf.index_within_payload(to_uint32(index)) ? Qtrue : Qfalse;
}

/*
 * call-seq:
 *   buf.payload_size -> integer
 *
 * The length of the payload, as a 32-bit number: all stored bytes, or, for a PacketFrameIn, what the frame's
 * header announced.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc")
 *   buf.payload_size  # => 3
 */
VALUE packetbuf_payload_size(VALUE self) {
  return from_low_32_bits(packet_buf_of(self).payload_size());
}

/*
 * call-seq:
 *   buf.seek_payload_start -> buf
 *
 * Moves the position to the first byte of the payload: index 0, or, for a PacketFrameIn, the end of the header.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf << "first" << "second"
 *   buf.seek_payload_start.extract_object  # => "first"
 */
VALUE packetbuf_seek_payload_start(VALUE self) {
  PacketBuf& buf = packet_buf_of(self);
  buf.set_pos(buf.payload_start());
  return self;
}

/*
 * call-seq:
 *   buf.write_raw(string) -> buf
 *
 * Writes the string's bytes as they are, without type or length, over what is stored at the position.
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.write_raw("abc").seek(1).write_raw("-")
 *   buf.seek(3).to_str      # => "a-c"
 *   buf.write_raw(:symbol)  # raises RuntimeError "packetbuf_write_raw: value to write must be String"
 */
VALUE packetbuf_write_raw(VALUE self, VALUE str) {
  PacketBuf& buf = packet_buf_of(self);
  if (!RB_TYPE_P(str, T_STRING)) {
    rb_raise(rb_eRuntimeError, "packetbuf_write_raw: value to write must be String");
  }
  native_guard([&] { buf.write_bytes(RSTRING_PTR(str), static_cast<uint32_t>(RSTRING_LEN(str))); });
  RB_GC_GUARD(str);
  report_storage(self);
  return self;
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
  packet_buf_of(self);  // the receiver check: behind it every receiver has storage to tell of
  // A failure leaves what was written before it, and the storage that this took.
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
  PacketBuf& buf = packet_buf_of(self);
  const DecodeOptions options = decode_options(self);
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
  PacketBuf& buf = packet_buf_of(self);
  const bool accepted = RB_TYPE_P(dest, T_DATA) &&
                        (rb_obj_class(dest) == cPacketBuf || rb_obj_class(dest) == cPacketFrameOut);
  if (!accepted) {
    rb_raise(rb_eRuntimeError, "packetbuf_copy_object: destination buffer must be PacketBuf or PacketFrameOut");
  }
  PacketBuf& to = packet_buf_of(dest);
  const DecodeOptions options = decode_options(self);
  const uint64_t start = buf.pos();
  deserialize_packetbuf_single_rbobj(buf, options, true);
  const uint64_t end = buf.pos();
  if (end <= start) {
    rb_raise(rb_eRuntimeError, "packetbuf_copy_object: internal error: deserialize_packetbuf_single_rbobj did not advance pos");
  }
  native_guard([&] { to.write_bytes(buf.data().data() + start, end - start); });
  RB_GC_GUARD(self);
  report_storage(dest);
  return self;
}

/*
 * call-seq:
 *   buf.to_str -> string
 *
 * The bytes before the position, from index 0 on, header included, as a binary String. At position 0 it is
 * empty. A position beyond the payload raises RuntimeError "packetbuf_to_str: pos outside payload".
 *
 *   buf = VORN::PROTO::PacketBuf.new
 *   buf.to_str             # => ""
 *   (buf << false).to_str  # => "\x01"
 */
VALUE packetbuf_to_str(VALUE self) {
  const PacketBuf& buf = packet_buf_of(self);
  const uint64_t pos = buf.pos();
  if (pos == 0) return rb_str_new(nullptr, 0);
  if (!buf.index_within_payload(pos - 1)) rb_raise(rb_eRuntimeError, "packetbuf_to_str: pos outside payload");
  const VALUE str = rb_str_new(buf.data().data(), static_cast<long>(static_cast<uint32_t>(pos)));
  RB_GC_GUARD(self);
  return str;
}

}  // namespace

void init_packet_buf() {
  id_preserve_symbols = rb_intern("@preserve_symbols_on_extract");
  id_maxdepth = rb_intern("@maxdepth");

  cPacketBuf = define_proto_class("PacketBuf", rb_cObject, packetbuf_allocate);
  rb_define_method(cPacketBuf, "initialize", VALUEFUNC(packetbuf_initialize), 0);
  rb_define_method(cPacketBuf, "initialize_copy", VALUEFUNC(packetbuf_initialize_copy), 1);
  rb_define_method(cPacketBuf, "reset", VALUEFUNC(packetbuf_reset), 0);
  rb_define_method(cPacketBuf, "preserve_symbols_on_extract", VALUEFUNC(packetbuf_preserve_symbols), 0);
  rb_define_method(cPacketBuf, "preserve_symbols_on_extract=", VALUEFUNC(packetbuf_set_preserve_symbols), 1);
  rb_define_method(cPacketBuf, "maxdepth", VALUEFUNC(packetbuf_maxdepth), 0);
  rb_define_method(cPacketBuf, "maxdepth=", VALUEFUNC(packetbuf_set_maxdepth), 1);
  rb_define_method(cPacketBuf, "pos", VALUEFUNC(packetbuf_pos), 0);
  rb_define_method(cPacketBuf, "pos=", VALUEFUNC(packetbuf_set_pos), 1);
  rb_define_alias(cPacketBuf, "seek", "pos=");
  rb_define_method(cPacketBuf, "index_within_payload?", VALUEFUNC(packetbuf_index_within_payload), 1);
  rb_define_method(cPacketBuf, "payload_size", VALUEFUNC(packetbuf_payload_size), 0);
  rb_define_method(cPacketBuf, "seek_payload_start", VALUEFUNC(packetbuf_seek_payload_start), 0);
  rb_define_method(cPacketBuf, "write_raw", VALUEFUNC(packetbuf_write_raw), 1);
  rb_define_method(cPacketBuf, "write_object", VALUEFUNC(packetbuf_write_object), 1);
  rb_define_alias(cPacketBuf, "<<", "write_object");
  rb_define_method(cPacketBuf, "extract_object", VALUEFUNC(packetbuf_extract_object), 0);
  rb_define_method(cPacketBuf, "copy_object", VALUEFUNC(packetbuf_copy_object), 1);
  rb_define_method(cPacketBuf, "to_str", VALUEFUNC(packetbuf_to_str), 0);
}

}  // namespace EXT
}  // namespace VORN
