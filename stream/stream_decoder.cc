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
    : options_(options), on_damage_(std::move(on_damage)) {}

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
    while (!bytes.empty() && read(bytes, on_frame)) continue;
    rest_.assign(bytes);
  } catch (...) {
    rest_.assign(bytes);
    throw;
  }
}

void StreamDecoder::finish() {
  if (failure_) std::rethrow_exception(failure_);
  const uint64_t arrived = in_frame_ ? frame_.pos() : 0;
  const uint64_t missed = arrived + rest_.size();
  if (missed > 0) {
    skip<TruncatedStream>(missed, "the stream ends in the middle of a frame", position_ - arrived);
    in_frame_ = false;
    rest_.clear();
  }
  report_damage();
}

/// Reads one step on: over bytes that begin no frame, or into a frame. False: the header has not arrived yet.
bool StreamDecoder::read(std::string_view& bytes, const OnFrame& on_frame) {
  if (!in_frame_) {
    if (bytes.front() != START) return skip_to_start(bytes, 0, "bytes that belong to no frame");
    const uint64_t header_len = PROTO::frame_header_len(bytes);
    if (bytes.size() < header_len) return false;
    const std::string fault = header_fault(bytes);
    if (!fault.empty()) return skip_to_start(bytes, 1, fault);
    delivered_.twelve_byte_header = header_len == PROTO::PF12_HEADER_LEN;
    frame_.reset();
  }
  const uint64_t taken = frame_.assemble(bytes.data(), bytes.size(), 0);
  in_frame_ = true;  // not before: without memory for the payload the header is read again
  consume(bytes, taken);
  if (frame_.have_complete_frame()) deliver(on_frame);
  return true;
}

/// What is wrong with the header that begins there; nothing if it is empty. The assembler would trust the announced
/// length and reserve it at once, up to 2 GiB for eight bytes from anybody, and see a wrong payload check only behind
/// the payload.
std::string StreamDecoder::header_fault(std::string_view bytes) const {
  if (!PROTO::frame_header_check_passes(bytes) || !PROTO::frame_payload_check_passes(bytes)) {
    return "a frame header with wrong check bytes";
  }
  const uint32_t length = PROTO::decode_frame_header(bytes).data_len;
  const uint64_t most = std::min<uint64_t>(options_.max_length, PROTO::PF8_MAX_DATA_LEN);
  if (length <= most) return "";
  return "a frame announces " + std::to_string(length) + " bytes, " + std::to_string(most) + " are accepted";
}

/// Skips what cannot begin a frame, from `least` bytes on. Returns true.
bool StreamDecoder::skip_to_start(std::string_view& bytes, size_t least, const std::string& reason) {
  const size_t skipped = std::min(bytes.find(START, least), bytes.size());
  skip<DamagedStream>(skipped, reason, position_);
  consume(bytes, skipped);
  return true;
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

/// Takes the messages of the frame that is complete; the next may begin. False: it could not be read.
bool StreamDecoder::read_messages() {
  in_frame_ = false;
  const uint64_t length = frame_.payload_end();
  const uint64_t begins = position_ - length;
  delivered_.seq = frame_.seq();
  delivered_.messages.clear();
  try {
    frame_.set_pos(frame_.payload_start());
    while (frame_.pos() < length) {
      delivered_.messages.emplace_back();
      VObject::deserialize(frame_, length, delivered_.messages.back(), options_.symbols_as_strings, options_.max_depth);
    }
  } catch (const VornException& e) {
    skip<DamagedStream>(length, std::string("a frame whose payload cannot be read: ") + e.what(), begins);
    return false;
  }
  return true;
}

void StreamDecoder::report_damage() {
  if (damage_.bytes == 0) return;
  const Damage damage = std::exchange(damage_, Damage());
  ++statistics_.damages;
  on_damage_(damage);
}

}  // namespace STREAM
}  // namespace VORN
