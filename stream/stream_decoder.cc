#include "stream/stream_decoder.h"

#include <algorithm>
#include <utility>

#include "proto/frame_header.h"
#include "proto/vorn_exception.h"

namespace VORN {
namespace STREAM {

namespace {

constexpr char START = static_cast<char>(PROTO::PF_START_MARKER);

}  // namespace

StreamDecoder::StreamDecoder(DecoderOptions options, OnDamage on_damage)
    : options_(options), on_damage_(std::move(on_damage)) {
  frame_.reset();  // a new frame consumes nothing until reset
}

StreamDecoder::~StreamDecoder() = default;

/// Counts bytes as skipped, which join those skipped just before, or ends the stream with an error of this class.
template <typename Error>
void StreamDecoder::skip(uint64_t bytes, const std::string& reason, uint64_t begins) {
  if (!on_damage_) {
    failure_ = std::make_exception_ptr(Error(reason, begins));
    std::rethrow_exception(failure_);
  }
  if (damage_.bytes == 0) damage_ = {reason, begins, 0};
  damage_.bytes += bytes;
  statistics_.skipped += bytes;
}

void StreamDecoder::feed(std::string_view bytes, const OnFrame& on_frame) {
  if (failure_) std::rethrow_exception(failure_);
  statistics_.bytes += bytes.size();
  std::string joined;
  if (!rest_.empty()) {
    joined.swap(rest_);
    joined += bytes;
    bytes = joined;
  }
  try {
    while (!bytes.empty()) read(bytes, on_frame);
  } catch (...) {
    rest_.assign(bytes);
    throw;
  }
}

void StreamDecoder::finish() {
  if (failure_) std::rethrow_exception(failure_);
  const uint64_t missed = header_is_whole_ ? frame_.pos() : header_.size();
  if (missed > 0) {
    skip<TruncatedStream>(missed, "the stream ends in the middle of a frame", position_ - missed);
    next_frame();
  }
  report_damage();
}

/// Reads one step on: a header, or part of a payload.
void StreamDecoder::read(std::string_view& bytes, const OnFrame& on_frame) {
  if (!header_is_whole_) {
    if (!accept_header(bytes)) return;
    frame_.assemble(header_.data(), header_.size(), 0);
  } else {
    const uint64_t taken = frame_.assemble(bytes.data(), bytes.size(), 0);
    consume(bytes, taken);
  }
  if (frame_.have_complete_frame()) deliver(on_frame);
}

/// Looks at the header before the assembler does, which trusts the announced length and reserves it at once: up to
/// 2 GiB for eight bytes from anybody. False: it has not arrived yet, or was none.
bool StreamDecoder::accept_header(std::string_view& bytes) {
  if (header_.empty() && bytes.front() != START) {
    const size_t start = bytes.find(START);
    const size_t skipped = start == std::string_view::npos ? bytes.size() : start;
    skip<DamagedStream>(skipped, "bytes that belong to no frame", position_);
    consume(bytes, skipped);
    return false;
  }
  const size_t held = header_.size();
  std::string window = header_;
  window += bytes.substr(0, PROTO::PF12_HEADER_LEN - held);
  const size_t length = PROTO::frame_header_len(window);
  if (window.size() < length) {
    header_ = window;
    consume(bytes, bytes.size());
    return false;
  }
  const std::string fault = header_fault(std::string_view(window).substr(0, length));
  if (fault.empty()) {
    consume(bytes, length - held);
    header_ = window.substr(0, length);
    header_is_whole_ = true;
    return true;
  }
  const size_t start = window.find(START, 1);
  const size_t skipped = start == std::string::npos ? window.size() : start;
  skip<DamagedStream>(skipped, fault, position_ - held);
  header_.erase(0, skipped);
  consume(bytes, skipped - std::min(held, skipped));
  return false;
}

/// What is wrong with a header; nothing if it is empty.
std::string StreamDecoder::header_fault(std::string_view header) const {
  // The assembler would see a wrong payload check only behind the payload.
  if (!PROTO::frame_header_check_passes(header) || !PROTO::frame_payload_check_passes(header)) {
    return "a frame header with wrong check bytes";
  }
  const uint32_t length = PROTO::decode_frame_header(header).data_len;
  if (length <= options_.max_length && length <= PROTO::PF8_MAX_DATA_LEN) return "";
  return "a frame announces " + std::to_string(length) + " bytes, " + std::to_string(options_.max_length) +
         " are accepted";
}

void StreamDecoder::consume(std::string_view& bytes, uint64_t count) {
  bytes.remove_prefix(static_cast<size_t>(count));
  position_ += count;
}

void StreamDecoder::deliver(const OnFrame& on_frame) {
  if (!read_messages()) return;
  ++statistics_.frames;
  statistics_.messages += delivered_.messages.size();
  report_damage();
  on_frame(delivered_);
}

/// Takes the messages of the frame that is complete, and makes room for the next. False: it could not be read.
bool StreamDecoder::read_messages() {
  const uint64_t length = frame_.payload_end();
  const uint64_t begins = position_ - length;
  delivered_.seq = frame_.seq();
  delivered_.twelve_byte_header = header_.size() == PROTO::PF12_HEADER_LEN;
  delivered_.messages.clear();
  try {
    frame_.set_pos(frame_.payload_start());
    while (frame_.pos() < length) {
      delivered_.messages.emplace_back();
      VObject::deserialize(frame_, length, delivered_.messages.back(), options_.symbols_as_strings, options_.max_depth);
    }
  } catch (const VornException& e) {
    next_frame();
    skip<DamagedStream>(length, std::string("a frame whose payload cannot be read: ") + e.what(), begins);
    return false;
  } catch (...) {
    next_frame();
    throw;
  }
  next_frame();
  return true;
}

void StreamDecoder::next_frame() {
  frame_.reset();
  header_.clear();
  header_is_whole_ = false;
}

void StreamDecoder::report_damage() {
  if (damage_.bytes == 0) return;
  const Damage damage = std::exchange(damage_, Damage());
  ++statistics_.damages;
  on_damage_(damage);
}

}  // namespace STREAM
}  // namespace VORN
