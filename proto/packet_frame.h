/// What the two frame classes have in common: the header layouts.
#pragma once

#include <cstddef>

#include "proto/frame_header.h"
#include "proto/packet_buf.h"

namespace VORN {
namespace PROTO {

/// Fixes the class tree and carries the layout constants under the names that Ruby code knows them by.
class VORN_API PacketFrame : public PacketBuf {
 public:
  /// The constants of proto/frame_header.h.
  /// @{
  static constexpr uint64_t PF8_HEADER_LEN = PROTO::PF8_HEADER_LEN;
  static constexpr uint64_t PF8_MAX_DATA_LEN = PROTO::PF8_MAX_DATA_LEN;
  static constexpr uint64_t PF12_HEADER_LEN = PROTO::PF12_HEADER_LEN;
  static constexpr uint64_t PF12_MAX_DATA_LEN = PROTO::PF12_MAX_DATA_LEN;
  /// @}

  ~PacketFrame() override;

 protected:
  PacketFrame() = default;
  /// With `capacity` bytes reserved, as PacketBuf has it. Throws std::bad_alloc.
  explicit PacketFrame(size_t capacity) : PacketBuf(capacity) {}
};

}  // namespace PROTO
}  // namespace VORN
