/// What a variant is made of: a tag, and a scalar or a share of what the tag names. It keeps the counts right and knows
/// no rule of the variant: references are never followed here.
///
/// Not for programs that use the library: vobject.h has the operations.
#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "proto/export.h"
#include "vobject/data_types.h"

namespace VORN {

/// The representation of one variant.
class VORN_API VObjectPayload {
 public:
  /// Nil.
  constexpr VObjectPayload() noexcept : scalar_{0, nullptr}, tag_(DT_NIL) {}
  /// A scalar. REQUIRES: the tag is that of a scalar.
  VObjectPayload(uint8_t tag, uint64_t word) noexcept : scalar_{word, nullptr}, tag_(tag) {
    assert(!is_shared_type(tag));
  }
  /// A share of storage. REQUIRES: the tag is DT_STR to DT_UDT, and `storage` points at the type that it names.
  VObjectPayload(uint8_t tag, boost::shared_ptr<void>&& storage) noexcept : shared_(std::move(storage)), tag_(tag) {
    assert(is_shared_type(tag) && tag != DT_REF);
  }
  /// A reference. REQUIRES: the pointer is not null.
  explicit VObjectPayload(const boost::shared_ptr<VObject>& referent) noexcept : ref_(referent), tag_(DT_REF) {
    assert(referent != nullptr);
  }

  /// Shares what the source shares.
  VObjectPayload(const VObjectPayload& src) noexcept : VObjectPayload() {
    if (is_shared_type(src.tag_)) {
      retain(src);
    } else {
      scalar_ = src.scalar_;
      tag_ = src.tag_;
    }
  }
  /// Leaves the source nil.
  VObjectPayload(VObjectPayload&& src) noexcept : VObjectPayload() { steal(src); }
  VObjectPayload& operator=(const VObjectPayload&) = delete;

  ~VObjectPayload() {
    if (is_shared_type(tag_)) release();
  }

  /// Overwrite the payload. What it held ends last, when the payload is complete: with it may end much else, the source
  /// or this very payload.
  /// @{
  void set_scalar(uint8_t tag, uint64_t word) noexcept {
    if (is_shared_type(tag_)) {
      replace(VObjectPayload(tag, word));
    } else {
      scalar_.word = word;
      tag_ = tag;
    }
  }
  void replace(VObjectPayload&& contents) noexcept;
  /// @}

  /// The tag.
  uint8_t tag() const noexcept { return tag_; }
  /// A scalar's bits. REQUIRES: the tag is a scalar's, or none of the kinds.
  uint64_t word() const {
    assert(!is_shared_type(tag_) || tag_ > DT_REF);
    return scalar_.word;
  }

  /// The contents by kind. REQUIRES: the tag is that kind's.
  /// @{
  int64_t integer() const {
    assert(tag_ == DT_INT);
    return static_cast<int64_t>(scalar_.word);
  }
  double real() const {
    assert(tag_ == DT_DOUBLE);
    double value;
    std::memcpy(&value, &scalar_.word, sizeof value);
    return value;
  }
  bool boolean() const {
    assert(tag_ == DT_BOOL);
    return scalar_.word != 0;
  }
  uint32_t symbol() const {
    assert(tag_ == DT_SYMBOL);
    return static_cast<uint32_t>(scalar_.word);
  }
  VObjectString& str() const { return *static_cast<VObjectString*>(storage(DT_STR)); }
  VObjectHash& hash() const { return *static_cast<VObjectHash*>(storage(DT_HASH)); }
  VObjectVector& vec() const { return *static_cast<VObjectVector*>(storage(DT_VECTOR)); }
  VObjectUDT* udt() const { return static_cast<VObjectUDT*>(storage(DT_UDT)); }
  boost::shared_ptr<VObject>& referent() {
    assert(tag_ == DT_REF);
    return ref_;
  }
  const boost::shared_ptr<VObject>& referent() const { return const_cast<VObjectPayload*>(this)->referent(); }
  /// @}

  /// The bits of a scalar.
  /// @{
  static uint64_t word_of(int64_t value) { return static_cast<uint64_t>(value); }
  static uint64_t word_of(double value) {
    uint64_t word;
    std::memcpy(&word, &value, sizeof word);
    return word;
  }
  /// @}

 private:
  /// The count takes the place of a shared pointer's count.
  struct Scalar {
    uint64_t word;
    void* count;
  };

  void* storage([[maybe_unused]] uint8_t tag) const {
    assert(tag_ == tag);
    return shared_.get();
  }

  void retain(const VObjectPayload& src) noexcept;
  inline void steal(VObjectPayload& src) noexcept;  // a DLL that is linked could not have it otherwise
  void release() noexcept;

  union {
    Scalar scalar_;                   ///< DT_NIL to DT_SYMBOL
    boost::shared_ptr<void> shared_;  ///< DT_STR to DT_UDT: points at the payload type of the tag
    boost::shared_ptr<VObject> ref_;  ///< DT_REF
  };
  uint8_t tag_;
};

/// REQUIRES: nothing is held that would have to be released.
inline void VObjectPayload::steal(VObjectPayload& src) noexcept {
  assert(!is_shared_type(tag_));
  if (!is_shared_type(src.tag_)) {
    scalar_ = src.scalar_;
  } else if (src.tag_ == DT_REF) {
    new (&ref_) boost::shared_ptr<VObject>(std::move(src.ref_));
  } else {
    new (&shared_) boost::shared_ptr<void>(std::move(src.shared_));
  }
  tag_ = src.tag_;
  src.scalar_ = {0, nullptr};
  src.tag_ = DT_NIL;
}

}  // namespace VORN
