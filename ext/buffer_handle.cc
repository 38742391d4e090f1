#include "ext/buffer_handle.h"

#include <cstddef>

namespace VORN {
namespace EXT {

namespace {

void free_native(void* data) {
  if (data == nullptr) return;
  BufferHandle* const native = static_cast<BufferHandle*>(data);
  adjust_gc_memory_usage(-native->reported_bytes);
  delete native;
}

size_t size_of_native(const void* data) {
  if (data == nullptr) return 0;
  const BufferHandle* const native = static_cast<const BufferHandle*>(data);
  return sizeof *native + sizeof *native->buf + native->buf->capacity();
}

rb_data_type_t data_type(const char* name, const rb_data_type_t* parent) noexcept {
  rb_data_type_t type = rb_data_type_t();
  type.wrap_struct_name = name;
  type.function.dfree = free_native;
  type.function.dsize = size_of_native;
  type.parent = parent;
  // Releasing runs no Ruby code, and there is no Ruby value in it that a write barrier would have to watch.
  type.flags = RUBY_TYPED_FREE_IMMEDIATELY | RUBY_TYPED_WB_PROTECTED;
  return type;
}

}  // namespace

const rb_data_type_t packet_buf_type = data_type("PacketBuf", nullptr);
const rb_data_type_t packet_frame_in_type = data_type("PacketFrameIn", &packet_buf_type);
const rb_data_type_t packet_frame_out_type = data_type("PacketFrameOut", &packet_buf_type);

BufferHandle& buffer_handle(VALUE obj, const rb_data_type_t& type) {
  void* const data = rb_check_typeddata(obj, &type);
  if (data == nullptr) rb_raise(rb_eRuntimeError, "NULL object DATA pointer, wanted PacketBuf");
  BufferHandle& native = *static_cast<BufferHandle*>(data);
  native.buf->cut_tail();
  return native;
}

void report_storage(VALUE obj) {
  BufferHandle& native = *static_cast<BufferHandle*>(RTYPEDDATA_DATA(obj));
  native.buf->cut_tail();
  const int64_t capacity = static_cast<int64_t>(native.buf->capacity());
  if (capacity == native.reported_bytes) return;
  const int64_t difference = capacity - native.reported_bytes;
  native.reported_bytes = capacity;
  adjust_gc_memory_usage(difference);
  RB_GC_GUARD(obj);
}

}  // namespace EXT
}  // namespace VORN
