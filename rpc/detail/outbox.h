/// Bytes on their way to the peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace VORN {
namespace RPC {

/// Collects bytes while earlier ones are being written. What is written at once is a batch; batches count from 1.
class Outbox {
 public:
  /// Adds bytes to the next batch. Throws std::bad_alloc, and has added nothing then.
  void add(std::string_view bytes) { next_.append(bytes); }

  /// The number of the batch that bytes are added to.
  uint64_t next_batch() const { return written_ + (writing_.empty() ? 1 : 2); }
  /// The number of the last batch that has been written.
  uint64_t written() const { return written_; }

  /// How many bytes have not been written.
  size_t size() const { return writing_.size() + next_.size(); }
  bool writing() const { return !writing_.empty(); }
  bool empty() const { return size() == 0; }

  /// The batch to be written now; nothing if there is none, or another one is being written.
  std::string_view begin();
  /// The batch has been written.
  void end();

 private:
  std::string writing_;
  std::string next_;
  uint64_t written_ = 0;
};

}  // namespace RPC
}  // namespace VORN
