#include "proto/packet_buf.h"
#include "proto/value_wire.h"
#include "vobject/vobject_internal.h"

namespace VORN {

VObject& deep_copy(const VObject& source, VObject& target) {
  // Holds what the target held until the end, since the source may be part of it.
  const VObject old(std::move(VObjectInternal::target(target)));
  PROTO::PacketBuf buf;
  source.serialize(buf, PROTO::DEFAULT_MAX_DEPTH);
  const uint64_t end = buf.pos();
  buf.set_pos(0);
  VObject::deserialize(buf, end, target, false, PROTO::DEFAULT_MAX_DEPTH);
  return target;
}

}  // namespace VORN
