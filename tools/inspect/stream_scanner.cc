#include "tools/inspect/stream_scanner.h"

#include <algorithm>
#include <cstring>

namespace vorn_inspect {

using namespace VORN::PROTO;

const char BAD_HEADER[] = "Bad Header CRC";
const char BAD_PAYLOAD_CHECK[] = "Bad Payload Data CRC";
const char TOO_LONG[] = "Payload size exceeds soft limit";
const char CUT_OFF[] = "cut off by the end of the input";
const char UNREADABLE[] = "no readable payload, where no frame is expected";
const char TOO_MUCH_OVERLAP[] = "not looked into: too many overlapping frames";

namespace {

constexpr uint64_t OVERLAP_ALLOWANCE = 4;

}  // namespace

void StreamScanner::feed(std::string_view bytes) {
  window_.append(bytes);
  while (step()) {
  }
  note_head();
  window_.drop_before(pos_);
}

void StreamScanner::finish() {
  ended_ = true;
  while (step()) {
  }
  report_skipped();
}

/// False: more bytes are needed.
bool StreamScanner::step() {
  switch (state_) {
    case State::expect: return step_candidate();
    case State::search: return step_search();
    case State::judge: break;
  }
  return step_judge();
}

bool StreamScanner::step_search() {
  const bool bounded = searched_end_ >= pos_ && searched_end_ != 0;
  const uint64_t end = bounded ? searched_end_ : window_.end();
  const std::string_view bytes = window_.view(pos_, end - pos_);
  const void* const marker = bytes.empty() ? nullptr : std::memchr(bytes.data(), PF_START_MARKER, bytes.size());
  if (marker != nullptr) {
    pos_ += static_cast<uint64_t>(static_cast<const char*>(marker) - bytes.data());
    return step_candidate();
  }
  pos_ = end;
  if (!bounded) return false;
  searched_end_ = 0;
  state_ = State::expect;
  return true;
}

bool StreamScanner::step_candidate() {
  if (pos_ == window_.end()) return false;
  if (window_.view(pos_, 1)[0] != static_cast<char>(PF_START_MARKER)) {
    state_ = State::search;
    return true;
  }
  Candidate candidate;
  const HeaderState header = read_header(pos_, candidate);
  if (header == HeaderState::failed) return reject(candidate, candidate.reason);
  if (header == HeaderState::incomplete || candidate.size() > window_.end() - pos_) {
    return ended_ && reject(candidate, CUT_OFF);
  }
  if (!may_look_at(candidate)) return reject(candidate, TOO_MUCH_OVERLAP);
  if (!look_into(candidate)) return reject(candidate, UNREADABLE);
  report(candidate);
  state_ = State::judge;
  return true;
}

bool StreamScanner::step_judge() {
  bool trusted = false;
  if (frame_plausible_) {
    bool known;
    trusted = header_follows(frame_end_, known);
    if (!known) return false;
  }
  if (trusted) {
    pos_ = frame_end_;
    state_ = State::expect;
  } else {
    searched_end_ = std::max(searched_end_, frame_end_);
    ++pos_;
    state_ = State::search;
  }
  return true;
}

StreamScanner::HeaderState StreamScanner::read_header(uint64_t offset, Candidate& candidate) const {
  const uint64_t held = std::min(window_.end() - offset, PF12_HEADER_LEN);
  const std::string_view bytes = window_.view(offset, held);
  if (held < 2) return HeaderState::incomplete;
  candidate.header_len = frame_header_len(bytes);
  if (held < candidate.header_len) return HeaderState::incomplete;
  if (!frame_header_check_passes(bytes)) {
    candidate.reason = BAD_HEADER;
    return HeaderState::failed;
  }
  candidate.header = decode_frame_header(bytes);
  candidate.has_header = true;
  if (candidate.header.data_len > max_length_) {
    candidate.reason = TOO_LONG;
  } else if (!frame_payload_check_passes(bytes)) {
    candidate.reason = BAD_PAYLOAD_CHECK;
  }
  return candidate.reason == nullptr ? HeaderState::good : HeaderState::failed;
}

/// How many bytes of a frame at pos_ would be examined again.
uint64_t StreamScanner::overlap(uint64_t size) const {
  return std::min(pos_ + size, std::max(looked_at_, pos_)) - pos_;
}

bool StreamScanner::may_look_at(const Candidate& candidate) const {
  const uint64_t allowance = OVERLAP_ALLOWANCE * pos_ + max_length_ + PF12_HEADER_LEN;
  return overlap_spent_ + overlap(candidate.size()) <= allowance;
}

/// Whether the candidate is credible.
bool StreamScanner::look_into(const Candidate& candidate) {
  const uint64_t end = pos_ + candidate.size();
  uint64_t inner_end = 0;
  uint64_t looked_at;
  const bool readable =
      walk_messages(window_, pos_ + candidate.header_len, candidate.header.data_len, looked_at, [&](uint64_t start) {
        if (start >= inner_end) inner_end = end_of_frames(start, end);
      });
  const bool credible = readable || state_ == State::expect || candidate.header_len == PF12_HEADER_LEN;
  // A sink reads a reported frame to its end.
  const uint64_t size = credible ? candidate.size() : candidate.header_len + looked_at;
  overlap_spent_ += overlap(size);
  looked_at_ = std::max(looked_at_, pos_ + size);
  frame_plausible_ = readable && inner_end != end;
  return credible;
}

/// The end of the chain of adjacent frames that starts at `offset` and does not reach past `limit`; `offset` itself
/// if there is none.
uint64_t StreamScanner::end_of_frames(uint64_t offset, uint64_t limit) const {
  while (offset < limit && window_.view(offset, 1)[0] == static_cast<char>(PF_START_MARKER)) {
    Candidate candidate;
    if (read_header(offset, candidate) != HeaderState::good || candidate.size() > limit - offset) break;
    offset += candidate.size();
  }
  return offset;
}

/// Whether a header that passes its checks, or the end of the input, is at `offset`. Clears `known` if more bytes
/// are needed to decide.
bool StreamScanner::header_follows(uint64_t offset, bool& known) const {
  known = true;
  if (offset == window_.end()) {
    known = ended_;
    return true;
  }
  if (window_.view(offset, 1)[0] != static_cast<char>(PF_START_MARKER)) return false;
  Candidate candidate;
  const HeaderState header = read_header(offset, candidate);
  known = ended_ || header != HeaderState::incomplete;
  return header != HeaderState::failed;
}

void StreamScanner::report(const Candidate& candidate) {
  const bool overlaps = pos_ < covered_;
  if (!overlaps) report_skipped();
  frame_end_ = pos_ + candidate.size();
  const Frame frame{pos_,     candidate.header_len,           candidate.header, window_.view(pos_, candidate.size()),
                    overlaps, overlaps ? covering_frame_ : 0, window_};
  if (frame_end_ > covered_) {
    covered_ = frame_end_;
    covering_frame_ = pos_;
  }
  sink_.on_frame(frame);
}

/// Records why no frame begins at pos_, and moves on by one byte. Bytes inside a reported frame are its payload
/// and need no reason.
bool StreamScanner::reject(const Candidate& candidate, const char* reason) {
  if (pos_ >= covered_) {
    if (skipped_.failed_start_count++ < Skipped::MAX_STARTS) {
      skipped_.failed_starts.push_back(
          {pos_, reason, static_cast<unsigned>(candidate.header_len), candidate.has_header, candidate.header});
    }
  }
  ++pos_;
  state_ = State::search;
  return true;
}

/// Keeps the first bytes from covered_ on before the window drops them.
void StreamScanner::note_head() {
  const uint64_t from = covered_ + skipped_.head.size();
  const uint64_t to = std::min(pos_, covered_ + Skipped::MAX_HEAD);
  if (from < to) skipped_.head.append(window_.view(from, to - from));
}

/// Reports the bytes from covered_ to pos_ as skipped, if there are any.
void StreamScanner::report_skipped() {
  if (pos_ > covered_) {
    note_head();
    skipped_.offset = covered_;
    skipped_.size = pos_ - covered_;
    sink_.on_skipped(skipped_);
    covered_ = pos_;
  }
  skipped_ = {};
}

}  // namespace vorn_inspect
