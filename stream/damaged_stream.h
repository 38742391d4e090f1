/// How a stream of frames can be broken.
#pragma once

#include <cstdint>
#include <string>

#include "proto/export.h"
#include "proto/vorn_runtime_error.h"

namespace VORN {
namespace STREAM {

/// The peer's bytes are not frames of values, or exceed this side's limits. A socket loses no bytes, so the peer is at
/// fault and what follows is no better: close the connection. The message is the reason, and where.
class VORN_API DamagedStream : public VornRuntimeError {
 public:
  /// The reason, and the offset in parentheses. Throws std::bad_alloc.
  DamagedStream(const std::string& reason, uint64_t offset);
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  DamagedStream(const DamagedStream&) = default;
  DamagedStream& operator=(const DamagedStream&) = default;
  /// @}
  ~DamagedStream() override;

  /// Where the damage begins: bytes since the beginning of the stream.
  uint64_t offset() const noexcept { return offset_; }

 private:
  uint64_t offset_;
};

/// The stream has ended in the middle of the frame that begins at offset().
class VORN_API TruncatedStream : public DamagedStream {
 public:
  using DamagedStream::DamagedStream;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  TruncatedStream(const TruncatedStream&) = default;
  TruncatedStream& operator=(const TruncatedStream&) = default;
  /// @}
  ~TruncatedStream() override;
};

/// A frame to be sent would exceed the limit.
class VORN_API MessageTooLarge : public VornRuntimeError {
 public:
  using VornRuntimeError::VornRuntimeError;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  MessageTooLarge(const MessageTooLarge&) = default;
  MessageTooLarge& operator=(const MessageTooLarge&) = default;
  /// @}
  ~MessageTooLarge() override;
};

/// Bytes that a decoder has passed over because they could not be read.
struct Damage {
  std::string reason;   ///< what was wrong with the first of them
  uint64_t offset = 0;  ///< where that stands: bytes since the beginning of the stream
  uint64_t bytes = 0;   ///< how many
};

}  // namespace STREAM
}  // namespace VORN
