/// The native object behind a Ruby object of the four classes: allocation, access, release.
#pragma once

#include <cstdint>
#include <new>

#include "ext/ruby_compat.h"
#include "proto/packet_buf.h"
#include "proto/packet_frame_in.h"
#include "proto/packet_frame_out.h"

namespace VORN {
namespace EXT {

/// What a Ruby object owns. It holds no Ruby values, so the collector has nothing to mark in it.
struct BufferHandle {
  PROTO::PacketBuf* const buf;
  int64_t reported_bytes = 0;  ///< storage that the collector has been told of

  virtual ~BufferHandle() = default;

 protected:
  explicit BufferHandle(PROTO::PacketBuf* b) : buf(b) {}
};

/// The handle and its buffer in one piece of memory.
template <typename Native>
struct OwnedBuffer final : BufferHandle {
  Native native;

  OwnedBuffer() : BufferHandle(&native), native(size_t{0}) {}
};

extern const rb_data_type_t packet_buf_type;
extern const rb_data_type_t packet_frame_in_type;
extern const rb_data_type_t packet_frame_out_type;

/// The receiver check. Raises TypeError for what is no object of this library, and RuntimeError "NULL object
/// DATA pointer, wanted PacketBuf" for one without its native object. The result lives as long as the Ruby
/// object: a method that still uses it after its last use of the VALUE needs RB_GC_GUARD.
/// Ends what a write in progress has open: Ruby code sees a buffer through here, and sees what has been written. Ruby
/// code may continue that write, so a method that runs some asks here again, or calls cut_tail().
BufferHandle& buffer_handle(VALUE obj, const rb_data_type_t& type);

/// The same for any of the classes. The fast path is inlined.
inline PROTO::PacketBuf& packet_buf_of(VALUE obj) {
  if (RB_TYPE_P(obj, T_DATA) && RTYPEDDATA_P(obj) && RTYPEDDATA_DATA(obj) != nullptr) {
    const rb_data_type_t* const type = RTYPEDDATA_TYPE(obj);
    if (type == &packet_buf_type || type->parent == &packet_buf_type) {
      PROTO::PacketBuf& buf = *static_cast<BufferHandle*>(RTYPEDDATA_DATA(obj))->buf;
      buf.cut_tail();
      return buf;
    }
  }
  return *buffer_handle(obj, packet_buf_type).buf;
}

inline PROTO::PacketFrameIn& packet_frame_in_of(VALUE obj) {
  return static_cast<PROTO::PacketFrameIn&>(*buffer_handle(obj, packet_frame_in_type).buf);
}

inline PROTO::PacketFrameOut& packet_frame_out_of(VALUE obj) {
  return static_cast<PROTO::PacketFrameOut&>(*buffer_handle(obj, packet_frame_out_type).buf);
}

/// Reports to the collector how the native storage has changed since the last report. Called where a method may
/// have grown it; ends what a write has open, as buffer_handle() does. May start a collection.
void report_storage(VALUE obj);

/// The body of an allocation function. The Ruby object comes first and its native object after, so that nothing
/// native is lost when Ruby runs out of memory. The native object begins without memory of its own: many programs make
/// one for each message, and INITIAL_CAPACITY for each would start a collection every few hundred. Raises RuntimeError
/// `failed` when allocation yields nothing, `threw` when the constructor throws.
template <typename Native>
VALUE allocate_native(VALUE klass, const rb_data_type_t& type, const char* failed, const char* threw) {
  const VALUE obj = TypedData_Wrap_Struct(klass, &type, nullptr);
  bool thrown = false;
  BufferHandle* native = nullptr;
  try {
    native = new (std::nothrow) OwnedBuffer<Native>;
  } catch (...) {
    thrown = true;
  }
  if (native == nullptr) rb_raise(rb_eRuntimeError, "%s", thrown ? threw : failed);
  RTYPEDDATA_DATA(obj) = native;
  report_storage(obj);
  return obj;
}

}  // namespace EXT
}  // namespace VORN
