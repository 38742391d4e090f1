#include "stream/stream_encoder.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "proto/value_wire.h"

namespace VORN {
namespace STREAM {

StreamEncoder::StreamEncoder(EncoderOptions options) : options_(options) {}

StreamEncoder::~StreamEncoder() = default;

std::string_view StreamEncoder::frame(const VObject& message) {
  begin();
  message.serialize(frame_, PROTO::DEFAULT_MAX_DEPTH);
  return end();
}

std::string_view StreamEncoder::frame(const std::vector<VObject>& messages) {
  begin();
  for (const VObject& message : messages) message.serialize(frame_, PROTO::DEFAULT_MAX_DEPTH);
  return end();
}

void StreamEncoder::begin() {
  frame_.set_use_12byte_header(options_.twelve_byte_header);
  frame_.reset();  // passes over the header, and over the remains of a call that failed
}

std::string_view StreamEncoder::end() {
  const uint64_t length = frame_.pos() - frame_.configured_header_len();
  const uint64_t allowed = std::min<uint64_t>(options_.max_length, frame_.configured_max_data_len());
  if (length > allowed) {
    throw MessageTooLarge("a frame of " + std::to_string(length) + " bytes, " + std::to_string(allowed) +
                          " are allowed");
  }
  frame_.compute_frame_header();
  frame_.inc_seq();
  return std::string_view(frame_.data()).substr(0, static_cast<size_t>(frame_.pos()));
}

}  // namespace STREAM
}  // namespace VORN
