/// Reads the tables in test/vectors/, which the Ruby tests read too. The README there describes the lines and the
/// notation of values.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace vorn_test {

/// The columns of values.txt, with every `=` resolved.
struct ValueVector {
  std::string name;
  std::string bytes;
  std::string variant;             ///< notation, or "!fault"
  std::string variant_as_strings;  ///< likewise
  std::string variant_bytes;       ///< empty when `variant` is a fault
};

/// The columns of faults.txt.
struct FaultVector {
  std::string name;
  std::string bytes;
  bool plain_buffer;  ///< payload column `all`
  uint64_t payload;   ///< bytes of the payload
  int32_t maxdepth;
  std::string ruby;
  uint64_t ruby_pos;
  std::string variant;
  uint64_t variant_pos;
};

/// The columns of frames.txt.
struct FrameVector {
  std::string name;
  std::string stream;
  uint64_t consumed;
  std::string state;
  unsigned layout;  ///< 0: none yet
  uint16_t seq;
  uint32_t data_len;
  std::string payload;
  bool is_written;  ///< the outbound frame writes exactly the consumed bytes

  bool is_complete() const { return state == "complete"; }
  bool is_incomplete() const { return state == "incomplete"; }
};

/// The columns of streams.txt.
struct StreamVector {
  std::string name;
  uint32_t max_length;
  uint32_t max_depth;
  bool symbols;
  bool skip;
  std::string bytes;
  std::vector<std::string> outcome;  ///< a frame's begins with "<"
  unsigned written;                  ///< 8 or 12; 0: not
};

/// The messages of a frame in an outcome, each in notation.
std::vector<std::string> messages_of(const std::string& frame);

/// The columns of packing.txt that C++ needs.
struct PackingVector {
  std::string name;
  std::string bytes;
  std::string variant;  ///< notation, or "!" and the error
  bool only_read;       ///< it is written otherwise
};

/// The columns of calls.txt.
struct CallVector {
  std::string name;
  std::string request;               ///< payload of its frame
  std::vector<std::string> answers;  ///< payloads in hex, or "closes"
};

/// The columns of group_numbers.txt.
struct VarintVector {
  std::string name;
  unsigned first_byte_bits;
  bool is_signed;
  std::string bytes;
  uint64_t magnitude;
  bool negative;
  std::string written;
};

const std::vector<ValueVector>& value_vectors();
const std::vector<FaultVector>& fault_vectors();
const std::vector<FrameVector>& frame_vectors();
const std::vector<StreamVector>& stream_vectors();
const std::vector<PackingVector>& packing_vectors();
const std::vector<CallVector>& call_vectors();
const std::vector<VarintVector>& varint_vectors();

/// Where to cut bytes of this length: everywhere, or near both ends if there are many.
std::vector<size_t> cuts(size_t length);

// For gtest's messages and test names.
std::ostream& operator<<(std::ostream& out, const ValueVector& v);
std::ostream& operator<<(std::ostream& out, const FaultVector& v);
std::ostream& operator<<(std::ostream& out, const FrameVector& v);
std::ostream& operator<<(std::ostream& out, const StreamVector& v);
std::ostream& operator<<(std::ostream& out, const PackingVector& v);
std::ostream& operator<<(std::ostream& out, const VarintVector& v);

}  // namespace vorn_test
