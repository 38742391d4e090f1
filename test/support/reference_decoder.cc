#include "test/support/reference_decoder.h"

#include <cstring>
#include <limits>
#include <map>

namespace vorn_test {

namespace {

using VORN::VObject;
using VORN::PROTO::PacketBuf;

struct Failure {
  const char* text;
};

struct Number {
  uint64_t magnitude;
  bool negative;
};

class ReferenceDecoder {
 public:
  ReferenceDecoder(const PacketBuf& buf, uint64_t end, uint64_t string_end, bool symbols_as_strings, uint32_t maxdepth)
      : buf_(buf),
        end_(end),
        string_end_(string_end),
        symbols_as_strings_(symbols_as_strings),
        maxdepth_(static_cast<int32_t>(maxdepth)),
        pos_(buf.pos()) {}

  uint64_t pos() const { return pos_; }
  const std::map<uint64_t, uint64_t>& array_counts() const { return array_counts_; }

  void count() {
    counting_ = true;
    VObject scratch;
    value(scratch);
    counting_ = false;
    depth_ = 0;
  }

  void build(VObject& out) {
    pos_ = buf_.pos();
    value(out);
  }

 private:
  bool readable() const { return buf_.index_within_payload(pos_); }
  bool at_end() const { return pos_ >= end_ || !readable(); }
  unsigned peek() const { return static_cast<unsigned char>(buf_.data()[pos_]); }

  unsigned take(const char* failure) {
    if (!readable()) throw Failure{failure};
    const unsigned byte = peek();
    ++pos_;
    return byte;
  }

  /// Reads a varint, lowest bits first; a byte's continuation flag is above its data bits. Shifts wrap around modulo
  /// 64, and the bits of a group that a shift moves beyond bit 63 are lost.
  Number number(unsigned first_data_bits, bool is_signed, const char* failure) {
    Number result = {0, false};
    unsigned place = 0;
    for (unsigned data_bits = first_data_bits;; data_bits = 7) {
      const unsigned byte = take(failure);
      for (unsigned bit = 0; bit < data_bits; ++bit) {
        const unsigned at = place % 64 + bit;
        if ((byte >> bit & 1) != 0 && at < 64) result.magnitude |= uint64_t{1} << at;
      }
      if (place == 0 && is_signed) result.negative = (byte >> (data_bits + 1) & 1) != 0;
      if ((byte >> data_bits & 1) == 0) return result;
      place += data_bits;
    }
  }

  /// Reads bits, most significant byte first. When they do not fit, reads none.
  uint64_t float_bits(unsigned bytes, const char* failure) {
    if (!readable() || !buf_.index_within_payload(pos_ + bytes - 1)) throw Failure{failure};
    uint64_t bits = 0;
    for (unsigned i = 0; i < bytes; ++i) bits = bits * 256 + take(failure);
    return bits;
  }

  void value(VObject& out) {
    if (++depth_ > maxdepth_) throw Failure{"VObject::deserialize: maxdepth exceeded"};
    if (at_end()) throw Failure{"VObject::deserialize: buffer underrun"};
    if (!counting_) out = VObject();
    const unsigned first = peek();
    if (first >= 0x80) {
      const Number n = number(5, true, "VObject::deserialize: buffer underrun decoding integer");
      if (!counting_) out = VObject(static_cast<int64_t>(n.negative ? uint64_t{0} - n.magnitude : n.magnitude));
    } else {
      ++pos_;
      body(first, out);
    }
    --depth_;
  }

  void body(unsigned type, VObject& out) {
    switch (type) {
      case 0x00: break;
      case 0x01: put(out, VObject(false)); break;
      case 0x02: put(out, VObject(true)); break;
      case 0x03: {
        const auto bits = static_cast<uint32_t>(float_bits(4, "VObject::deserialize_float: buffer underrun"));
        float number;
        std::memcpy(&number, &bits, sizeof number);
        put(out, VObject(static_cast<double>(number)));
        break;
      }
      case 0x04: {
        const uint64_t bits = float_bits(8, "VObject::deserialize_double: buffer underrun");
        double number;
        std::memcpy(&number, &bits, sizeof number);
        put(out, VObject(number));
        break;
      }
      case 0x05:
      case 0x07: string(out); break;
      case 0x06:
        string(out);
        if (!counting_ && !symbols_as_strings_) out.intern();
        break;
      case 0x08: hash(out); break;
      case 0x0A: array(out); break;
      default: throw Failure{"VObject::deserialize: unrecognized protocol transport type"};
    }
  }

  void put(VObject& out, const VObject& scalar) const {
    if (!counting_) out = scalar;
  }

  void string(VObject& out) {
    static const char too_long[] = "VObject::deserialize_str: buffer underrun extracting data bytes";
    const Number n = number(7, false, "VObject::deserialize_str: buffer underrun decoding data length");
    const uint64_t length = n.magnitude % (uint64_t{1} << 32);
    if (counting_) {
      if (length > 0 && pos_ + length - 1 >= string_end_) throw Failure{too_long};
    } else {
      if (length > 0 && !buf_.index_within_payload(pos_ + length - 1)) throw Failure{too_long};
      std::string bytes;
      for (uint64_t i = 0; i < length; ++i) bytes += buf_.data()[pos_ + i];
      out = VObject(bytes);
    }
    pos_ += length;
  }

  void hash(VObject& out) {
    if (!counting_) out = VObject::new_hash();
    VObject key;
    for (;;) {
      if (at_end()) throw Failure{"VObject::deserialize_hash: buffer underrun"};
      if (peek() == 0x09) break;
      value(key);
      if (counting_) {
        value(key);
        continue;
      }
      if (key.type() != VORN::DT_STR) {
        throw Failure{"VObject::deserialize_hash: only hash keys of type string are supported"};
      }
      value(out.gethash()[VORN::string_ref(key.getstr())]);
    }
    ++pos_;
  }

  void array(VObject& out) {
    const uint64_t start = pos_;
    if (counting_) array_counts_[start] = 0;
    if (!counting_) out = VObject::new_vector(array_counts_[start]);
    uint64_t elements = 0;
    for (;;) {
      if (at_end()) throw Failure{"VObject::deserialize_array: buffer underrun"};
      if (peek() == 0x0B) break;
      ++elements;
      if (counting_) {
        value(out);
      } else {
        out.append(VObject());
        value(out.at(-1));
      }
    }
    ++pos_;
    if (counting_) array_counts_[start] = elements;
  }

  const PacketBuf& buf_;
  const uint64_t end_;
  const uint64_t string_end_;
  const bool symbols_as_strings_;
  const int32_t maxdepth_;
  uint64_t pos_;
  int32_t depth_ = 0;
  bool counting_ = false;
  std::map<uint64_t, uint64_t> array_counts_;  ///< by the position after the array's start
};

}  // namespace

ReferenceScan reference_scan(const PacketBuf& buf, uint64_t end, uint64_t string_end, uint32_t maxdepth) {
  ReferenceDecoder decoder(buf, end, string_end, true, maxdepth);
  ReferenceScan result;
  try {
    decoder.count();
  } catch (const Failure& failure) {
    result.failure = failure.text;
  }
  result.pos = decoder.pos();
  for (const auto& array : decoder.array_counts()) result.array_counts.push_back(array.second);
  return result;
}

std::string reference_deserialize(PacketBuf& buf, uint64_t end, VObject& out, bool symbols_as_strings,
                                  uint32_t maxdepth) {
  ReferenceDecoder decoder(buf, end, std::numeric_limits<uint64_t>::max(), symbols_as_strings, maxdepth);
  std::string text;
  try {
    decoder.count();
    decoder.build(out);
  } catch (const Failure& failure) {
    text = failure.text;
  }
  buf.set_pos(decoder.pos());
  return text;
}

}  // namespace vorn_test
