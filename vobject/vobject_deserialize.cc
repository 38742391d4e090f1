/// Reading a value takes two passes over its bytes: check_value() checks it and counts the elements of its
/// arrays, the functions below build it. The building pass trusts the counts only as hints and keeps every
/// check of bounds.
#include <algorithm>
#include <boost/make_shared.hpp>
#include <string_view>

#include "proto/value_wire.h"
#include "proto/vorn_runtime_error.h"
#include "vobject/vobject_internal.h"

namespace VORN {

using namespace PROTO;

namespace {

[[noreturn]] void fail(ValueFault fault) {
  switch (fault) {
    case ValueFault::max_depth: throw VornRuntimeError("VObject::deserialize: maxdepth exceeded");
    case ValueFault::underrun: throw VornRuntimeError("VObject::deserialize: buffer underrun");
    case ValueFault::underrun_int: throw VornRuntimeError("VObject::deserialize: buffer underrun decoding integer");
    case ValueFault::underrun_length:
      throw VornRuntimeError("VObject::deserialize_str: buffer underrun decoding data length");
    case ValueFault::underrun_string:
      throw VornRuntimeError("VObject::deserialize_str: buffer underrun extracting data bytes");
    case ValueFault::underrun_float: throw VornRuntimeError("VObject::deserialize_float: buffer underrun");
    case ValueFault::underrun_double: throw VornRuntimeError("VObject::deserialize_double: buffer underrun");
    case ValueFault::underrun_hash: throw VornRuntimeError("VObject::deserialize_hash: buffer underrun");
    case ValueFault::underrun_array: throw VornRuntimeError("VObject::deserialize_array: buffer underrun");
    case ValueFault::unknown_type:
    case ValueFault::none: break;
  }
  throw VornRuntimeError("VObject::deserialize: unrecognized protocol transport type");
}

[[noreturn]] void fail_key_not_string() {
  throw VornRuntimeError("VObject::deserialize_hash: only hash keys of type string are supported");
}

/// A read cursor that moves the buffer's position to where reading stops, however that comes about.
class CommittedReader : public WireReader {
 public:
  explicit CommittedReader(PacketBuf& buf) : WireReader(buf), buf_(buf) {}
  ~CommittedReader() { commit(buf_); }
  CommittedReader(const CommittedReader&) = delete;
  CommittedReader& operator=(const CommittedReader&) = delete;

 private:
  PacketBuf& buf_;
};

/// A string's bytes, behind its type byte. They lie in the buffer.
std::string_view read_str(WireReader& in) {
  uint32_t length;
  if (!in.read_length(length)) fail(ValueFault::underrun_length);
  if (length == 0) return {};
  if (length > in.limit() - in.pos()) fail(ValueFault::underrun_string);
  const std::string_view bytes(in.bytes(), length);
  in.skip(length);
  return bytes;
}

struct DeserializeContext {
  WireReader& in;
  const uint64_t value_end;  ///< no value, member or end mark starts from here on
  const bool symbols_as_strings;
  const int32_t maxdepth;
  int32_t depth;
  ArrayCounts& array_counts;

  bool at_end() const { return in.pos() >= value_end; }

  /// Whether the next value is a string, and so may be a key.
  bool at_str() const {
    const uint8_t type = in.peek();
    return type == PTT_BINSTR || type == PTT_UTF8STR || (type == PTT_SYMBOL && symbols_as_strings);
  }
};

void deserialize_value(DeserializeContext& ctx, VObject& out);

void deserialize_str(DeserializeContext& ctx, VObject& out) {
  const std::string_view bytes = read_str(ctx.in);
  VObjectInternal::payload(out).replace({DT_STR, boost::make_shared<VObjectString>(bytes.data(), bytes.size())});
}

void set_double(VObject& out, double value) {
  VObjectInternal::payload(out).set_scalar(DT_DOUBLE, VObjectPayload::word_of(value));
}

void deserialize_float(DeserializeContext& ctx, VObject& out) {
  float value;
  if (!ctx.in.read_float(value)) fail(ValueFault::underrun_float);
  set_double(out, double{value});
}

void deserialize_double(DeserializeContext& ctx, VObject& out) {
  double value;
  if (!ctx.in.read_double(value)) fail(ValueFault::underrun_double);
  set_double(out, value);
}

// A frame of its own: inlined, it would make that of deserialize_value() larger for scalars too.
[[gnu::noinline]] void deserialize_hash(DeserializeContext& ctx, VObject& out) {
  WireReader& in = ctx.in;
  out.reset_hash();
  VObjectHash& hash = VObjectInternal::payload(out).hash();
  for (;;) {
    if (ctx.at_end()) fail(ValueFault::underrun_hash);
    if (in.peek() == PTT_HASH_END) {
      in.skip(1);
      return;
    }
    if (!ctx.at_str()) {
      VObject key;
      deserialize_value(ctx, key);
      fail_key_not_string();
    }
    if (ctx.depth >= ctx.maxdepth) fail(ValueFault::max_depth);
    in.skip(1);
    const std::string_view key = read_str(in);
    // A peer writes keys in order, so the hint makes most insertions constant in time.
    const auto element = hash.try_emplace(hash.end(), string_ref(key.data(), key.size()));
    deserialize_value(ctx, element->second);
  }
}

[[gnu::noinline]] void deserialize_array(DeserializeContext& ctx, VObject& out) {
  WireReader& in = ctx.in;
  out.reset_vector(ctx.array_counts.next());
  VObjectVector& elements = VObjectInternal::payload(out).vec();
  while (!ctx.at_end()) {
    if (in.peek() == PTT_ARRAY_END) {
      in.skip(1);
      return;
    }
    elements.emplace_back();
    deserialize_value(ctx, elements.back());
  }
  fail(ValueFault::underrun_array);
}

void deserialize_value(DeserializeContext& ctx, VObject& out) {
  WireReader& in = ctx.in;
  if (++ctx.depth > ctx.maxdepth) fail(ValueFault::max_depth);
  if (ctx.at_end()) fail(ValueFault::underrun);
  VObjectPayload& payload = VObjectInternal::payload(out);
  payload.set_scalar(DT_NIL, 0);
  const uint8_t type = in.peek();
  if (type >= PTT_INT) {
    int64_t value;
    const bool complete = in.read_int(value);
    payload.set_scalar(DT_INT, VObjectPayload::word_of(value));
    if (!complete) fail(ValueFault::underrun_int);
  } else {
    in.skip(1);
    switch (type) {
      case PTT_NIL: break;
      case PTT_FALSE: payload.set_scalar(DT_BOOL, 0); break;
      case PTT_TRUE: payload.set_scalar(DT_BOOL, 1); break;
      case PTT_FLOAT: deserialize_float(ctx, out); break;
      case PTT_DOUBLE: deserialize_double(ctx, out); break;
      case PTT_BINSTR:
      case PTT_UTF8STR: deserialize_str(ctx, out); break;
      case PTT_SYMBOL:
        deserialize_str(ctx, out);
        if (!ctx.symbols_as_strings) out.intern();
        break;
      case PTT_HASH_START: deserialize_hash(ctx, out); break;
      case PTT_ARRAY_START: deserialize_array(ctx, out); break;
      default: fail(ValueFault::unknown_type);
    }
  }
  --ctx.depth;
}

}  // namespace

void VObject::deserialize(PacketBuf& buf, uint64_t end, VObject& out, bool symbols_as_strings, uint32_t maxdepth) {
  const int32_t limit = static_cast<int32_t>(maxdepth);
  ArrayCounts counts;
  WireReader scanner(buf);
  // Where a string's bytes end is checked when they are read; this pass steps over them.
  const ValueFault fault = check_value(scanner, {limit, end, UINT64_MAX}, counts);
  if (fault != ValueFault::none) {
    scanner.commit(buf);
    fail(fault);
  }
  CommittedReader in(buf);
  DeserializeContext ctx{in, std::min(end, in.limit()), symbols_as_strings, limit, 0, counts};
  deserialize_value(ctx, out);
}

}  // namespace VORN
