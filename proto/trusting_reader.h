/// A read cursor that looks at no bounds: for bytes that check_value() has passed and that nothing can have changed
/// since. Who uses it has to prove that; in a build with assertions the bounds are checked.
#pragma once

#include <cassert>
#include <cstdint>
#include <cstring>

#include "proto/byte_order.h"
#include "proto/packet_buf.h"
#include "proto/varint.h"
#include "proto/wire_reader.h"

namespace VORN {
namespace PROTO {

/// Reads what a WireReader reads, and cannot fail.
class TrustingReader {
 public:
  /// Starts where `checked` stands. REQUIRES: check_value() has passed the value there, and all that is read is of it.
  explicit TrustingReader(const WireReader& checked)
      : at_(reinterpret_cast<const uint8_t*>(checked.bytes())), base_(at_ - checked.pos()), len_(checked.data_len()) {}

  /// Moves the buffer's position to where reading stands.
  void commit(PacketBuf& buf) const { buf.set_pos(static_cast<uint64_t>(at_ - base_)); }

  /// Nothing has moved. REQUIRES: that is so.
  void resync(const PacketBuf& buf) const {
    assert(reinterpret_cast<const uint8_t*>(buf.data().data()) == base_ && buf.data().size() == len_);
    static_cast<void>(buf);
  }

  /// Always.
  bool readable() const {
    assert(has(1));
    return true;
  }

  /// Whether so many bytes are left, which is asserted only.
  bool has(uint64_t bytes) const { return bytes <= len_ - static_cast<uint64_t>(at_ - base_); }

  /// As in WireReader, and within the value.
  /// @{
  uint8_t peek() const {
    assert(has(1));
    return *at_;
  }
  void skip(uint64_t n) {
    assert(has(n));
    at_ += n;
  }
  const char* bytes() const { return reinterpret_cast<const char*>(at_); }
  /// @}

  /// As in WireReader, and always true.
  /// @{
  bool read_int(int64_t& value) {
    uint64_t magnitude;
    bool negative;
    read_varint(INT_SHAPE, magnitude, negative);
    value = static_cast<int64_t>(negative ? 0 - magnitude : magnitude);
    return true;
  }
  bool read_length(uint32_t& length) {
    uint64_t magnitude;
    bool negative;
    read_varint(LENGTH_SHAPE, magnitude, negative);
    length = static_cast<uint32_t>(magnitude);
    return true;
  }
  bool read_float(float& value) { return read_bits<uint32_t>(value); }
  bool read_double(double& value) { return read_bits<uint64_t>(value); }
  /// @}

 private:
  void read_varint(VarintShape shape, uint64_t& magnitude, bool& negative) {
    const auto next = [this](unsigned& byte) {
      assert(has(1));
      byte = *at_++;
      return true;
    };
    read_varint_from(next, shape, magnitude, negative);
  }

  template <typename Bits, typename Float>
  bool read_bits(Float& value) {
    assert(has(sizeof(Bits)));
    const Bits bits = load_big_endian<Bits>(at_);
    std::memcpy(&value, &bits, sizeof value);
    at_ += sizeof bits;
    return true;
  }

  const uint8_t* at_;
  const uint8_t* base_;
  uint64_t len_;
};

}  // namespace PROTO
}  // namespace VORN
