#include "examples/native/framing.h"

#include "proto/frame_header.h"
#include "proto/value_wire.h"
#include "proto/vorn_exception.h"
#include "vobject/extract_messages.h"

namespace rpc {

using VORN::VObject;
using VORN::PROTO::DEFAULT_MAX_DEPTH;

FrameReader::FrameReader(uint32_t max_payload) : max_payload_(max_payload), inbound_{} {
  frame_.reset();  // a new frame consumes nothing until reset
}

void FrameReader::feed(std::string_view chunk, const OnFrame& on_frame) {
  while (!chunk.empty()) {
    if (!header_is_whole_) {
      if (!take_header(chunk)) return;
      frame_.assemble(header_.data(), header_.size(), 0);
    } else {
      chunk.remove_prefix(frame_.assemble(chunk.data(), chunk.size(), 0));
    }
    if (frame_.is_error()) throw BadFrame(frame_.error_message());
    if (frame_.have_complete_frame()) deliver(on_frame);
  }
}

/// Checks the header before the assembler does. The assembler trusts the announced length and allocates it at once, up
/// to 2 GiB: eight bytes from any client would cost that much memory.
bool FrameReader::take_header(std::string_view& chunk) {
  while (header_.size() < VORN::PROTO::frame_header_len(header_)) {
    if (chunk.empty()) return false;
    header_ += chunk.front();
    chunk.remove_prefix(1);
    if (static_cast<uint8_t>(header_[0]) != VORN::PROTO::PF_START_MARKER) {
      throw BadFrame("bytes that belong to no frame");
    }
  }
  const uint32_t length = VORN::PROTO::decode_frame_header(header_).data_len;
  if (length > max_payload_) {
    throw BadFrame("a frame announces " + std::to_string(length) + " bytes, " + std::to_string(max_payload_) +
                   " are accepted");
  }
  header_is_whole_ = true;
  return true;
}

void FrameReader::deliver(const OnFrame& on_frame) {
  inbound_.seq = frame_.seq();
  inbound_.twelve_byte_header = header_.size() == VORN::PROTO::PF12_HEADER_LEN;
  inbound_.messages.clear();
  try {
    VORN::PROTO::proto_extract_messages(frame_, inbound_.messages);
  } catch (const VORN::VornException& e) {
    throw BadFrame(e.what());
  }
  frame_.reset();
  header_.clear();
  header_is_whole_ = false;
  on_frame(inbound_);
}

std::string_view FrameWriter::frame(const VObject& message, bool twelve_byte_header) {
  begin(twelve_byte_header);
  message.serialize(frame_, DEFAULT_MAX_DEPTH);
  return end();
}

std::string_view FrameWriter::frame(const std::vector<VObject>& messages, bool twelve_byte_header) {
  begin(twelve_byte_header);
  for (const VObject& message : messages) message.serialize(frame_, DEFAULT_MAX_DEPTH);
  return end();
}

void FrameWriter::begin(bool twelve_byte_header) {
  frame_.set_use_12byte_header(twelve_byte_header);
  frame_.reset();  // moves past the header; also drops the remains of a failed call
}

std::string_view FrameWriter::end() {
  const uint64_t size = frame_.pos() - frame_.configured_header_len();
  if (size > max_payload_) {
    throw MessageTooLarge("a message of " + std::to_string(size) + " bytes, " + std::to_string(max_payload_) +
                          " are allowed");
  }
  frame_.compute_frame_header();
  frame_.inc_seq();  // lets a capture reveal lost frames
  return {frame_.data().data(), frame_.pos()};
}

}  // namespace rpc
