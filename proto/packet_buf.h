/// A growable byte buffer with one read/write position. Values are encoded into it and decoded from it; the
/// frame classes derive from it and narrow the payload range.
///
/// Writing overwrites: it never inserts, and the buffer never shrinks. reset() moves the position and keeps
/// the bytes, so a buffer that is reused stops allocating.
///
/// What is inline here is compiled into programs: members and their order are as fixed as the exported names, until the
/// library's SOVERSION changes. So it is with the frames, VObject and all that they are made of.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "proto/export.h"

namespace VORN {
namespace PROTO {

/// Bytes, a position, and the payload range, which the frame classes narrow.
class VORN_API PacketBuf {
 public:
  /// What a buffer and every frame reserve at first, unless told otherwise.
  static constexpr uint64_t INITIAL_CAPACITY = 0x10000;

  /// Empty, at position 0, with INITIAL_CAPACITY bytes reserved: it does not reallocate while it stays within them.
  /// Throws std::bad_alloc.
  PacketBuf();
  /// The same with `capacity` bytes reserved. 0 is for buffers that live for one message: what is written between
  /// open_tail() and cut_tail() then takes memory of just its size. Throws std::bad_alloc.
  explicit PacketBuf(size_t capacity);
  virtual ~PacketBuf();
  PacketBuf(const PacketBuf&) = delete;
  PacketBuf& operator=(const PacketBuf&) = delete;

  /// Back to the starting position; the stored bytes stay. Returns the new position.
  virtual uint64_t reset();

  /// The payload range: first index, one past the last index, length. It may reach beyond the stored bytes;
  /// what may be read is decided by index_within_payload().
  /// @{
  virtual uint64_t payload_start() const;
  virtual uint64_t payload_end() const;
  virtual uint64_t payload_size() const;
  /// @}

  /// Whether the byte at index i may be read: it lies inside the payload range and is stored.
  bool index_within_payload(uint64_t i) const;

  /// Stores one byte at the position and advances past it. Throws like claim().
  void write_byte(uint8_t b);

  /// Stores n bytes at the position and advances past them. `src` may point into this buffer's own bytes: they
  /// are copied as they were before the call. Throws like claim().
  void write_bytes(const char* src, uint64_t n);

  /// Makes n bytes exist at the position (bytes that did not exist before are zero), advances past them and
  /// returns the first of them, valid until the next write. Throws std::bad_alloc, and std::length_error
  /// "PacketBuf::claim: position out of range" where they would end beyond what any string can hold; the position
  /// and the bytes are then as before.
  char* claim(uint64_t n);

  /// Reserves memory for n bytes from the position on and stores none, so that writing them in pieces moves the buffer
  /// at most once. Throws like claim().
  void reserve(uint64_t n);

  /// The way around claim() for writers that know a bound before they know their length. begin_write() gives the bytes
  /// at the position if `most` of them exist already, else null; end_write() moves the position to where the writer has
  /// come. REQUIRES: `end` lies between what begin_write() gave and the end of the stored bytes, and nothing was
  /// written to the buffer in between.
  /// @{
  char* begin_write(uint64_t most);
  void end_write(const char* end);
  /// @}

  /// For writers of many small pieces, whose bytes would otherwise come to exist piece by piece. Between the calls
  /// there may be a tail, bytes behind the position that nobody has asked for yet; so claim() does not promise zeros,
  /// and what data() and the payload range say is not to be used. Both calls may be repeated, and cut_tail() may come
  /// from anywhere that wants to look at the buffer. REQUIRES: what is claimed in between is written, and set_pos() is
  /// not called.
  /// @{
  void open_tail() noexcept {
    if (tail_is_open_) return;
    tail_is_open_ = true;
    size_before_tail_ = data_.size();
    pos_before_tail_ = pos_;
    if (size_before_tail_ == 0) borrow_scratch();
  }
  void cut_tail() noexcept {
    if (!tail_is_open_) return;
    tail_is_open_ = false;
    if (data_.size() != size_before_tail_) remove_tail();
  }
  /// @}

  /// The position may be set anywhere; a write beyond the stored bytes fills the gap with zeros.
  /// @{
  uint64_t pos() const { return pos_; }
  void set_pos(uint64_t p) {
    assert(!tail_is_open_);
    pos_ = p;
  }
  /// @}

  /// All stored bytes, from index 0. The reference is bound to this buffer, pointers into it to the next write.
  const std::string& data() const {
    assert(!tail_is_open_);
    return data_;
  }

  /// Bytes of memory behind data(), used or not.
  size_t capacity() const noexcept { return data_.capacity(); }

  /// Whether the pointer is to one of the stored bytes.
  bool holds(const char* at) const {
    const std::less<const char*> before;  // the operator does not order pointers into different objects
    return !before(at, data_.data()) && before(at, data_.data() + data_.size());
  }

 protected:
  /// Makes the first n bytes exist, the new ones zero. Never shrinks. Throws like claim().
  void grow_to(uint64_t n);

 private:
  char* claim_fallback(uint64_t n);
  void borrow_scratch() noexcept;
  bool return_scratch(size_t size) noexcept;
  void remove_tail() noexcept;
  /// The byte at the position. REQUIRES: it exists, or is the next one to come.
  char* at_pos() {
    assert(pos_ <= data_.size());
    return &data_[static_cast<size_t>(pos_)];
  }

  std::string data_;
  uint64_t pos_ = 0;
  uint64_t size_before_tail_ = 0;
  uint64_t pos_before_tail_ = 0;
  bool tail_is_open_ = false;
  bool in_scratch_ = false;  ///< the tail and all before it lie in the thread's scratch memory
};

inline char* PacketBuf::begin_write(uint64_t most) {
  const uint64_t size = data_.size();
  return size >= most && pos_ <= size - most ? at_pos() : nullptr;
}

inline void PacketBuf::end_write(const char* end) {
  assert(end >= at_pos() && end <= data_.data() + data_.size());
  pos_ = static_cast<uint64_t>(end - data_.data());
}

inline char* PacketBuf::claim(uint64_t n) {
  char* at = begin_write(n);
  if (at == nullptr) at = claim_fallback(n);
  pos_ += n;
  return at;
}

inline void PacketBuf::write_byte(uint8_t b) {
  *claim(1) = static_cast<char>(b);
}

}  // namespace PROTO
}  // namespace VORN
