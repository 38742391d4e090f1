/// Finds the frames of a possibly damaged byte stream, and reports the bytes between them.
///
///   StreamScanner scanner(sink, max_length);
///   while (... more bytes ...) scanner.feed(bytes);
///   scanner.finish();
///
/// A receiver trusts a header, and one wrong length byte makes it read the following frames as payload.
/// This scanner asks for evidence before it believes a length. Three terms define the rules:
///
///   credible   a header with the right check fields and a length within the limit, whose payload has arrived.
///              Where no frame is expected, it must also have values that are readable to the payload's end, or
///              the 12-byte layout, whose five bytes of check fields are unlikely to match by chance.
///   trusted    a frame with readable values to its end that is followed by the end of the input or by another
///              header that passes its checks; unless a chain of frames begins at the end of one of its messages
///              and ends exactly where the frame does (headers are often readable as values).
///   expected   at the beginning, after a trusted frame, and where the other reported frames end (the one that
///              reaches furthest, if they overlap).
///
/// A credible frame is reported. If it is trusted, the scanner continues after it. If not, its length may be
/// damaged, so the bytes after its start marker are searched too, and frames found there are reported as
/// overlapping it. A start marker that begins no credible frame is recorded with the reason, and the search
/// continues one byte further. So every byte of the stream is tried as a start, except inside trusted frames:
///
///   An undamaged frame whose values are readable, or that has the 12-byte layout, is reported, unless it
///   begins inside a trusted frame.
///
/// Not covered: damage that moves a frame's end exactly to the start of a later frame and leaves its values
/// readable, because the frames between have become bytes of a string (indistinguishable from a frame); 8-byte
/// frames with unreadable values where no frame is expected; a frame longer than max_length, which counts as
/// damage; and the bound below. The price: in an undamaged stream, a frame whose last messages happen to be the
/// numbers and nils that form a header is reported twice, as itself and as the frame it seems to contain.
///
/// Work is linear. Examining a byte for the first time is free; examining it again, because frames overlap, is
/// charged to an allowance of 4 per byte of the stream so far, plus max_length to begin with. Hostile bytes (where
/// each start marker announces a long payload) can use it up; headers are then recorded as TOO_MUCH_OVERLAP and not
/// examined until enough bytes have passed. Memory is bounded by twice the size of a frame of max_length, plus one
/// feed().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "proto/frame_header.h"
#include "tools/inspect/message_reader.h"
#include "tools/inspect/stream_window.h"

namespace vorn_inspect {

/// Why a start marker begins no frame. The first three texts are the library's.
extern const char BAD_HEADER[];         ///< the check byte is wrong
extern const char BAD_PAYLOAD_CHECK[];  ///< the check word is wrong; reported without waiting for the payload
extern const char TOO_LONG[];           ///< longer than max_length
extern const char CUT_OFF[];            ///< the input ends before the frame
extern const char UNREADABLE[];         ///< no frame is expected here, and its values cannot be read
extern const char TOO_MUCH_OVERLAP[];   ///< not examined, see above

struct Frame {
  uint64_t offset;  ///< of the start marker
  uint64_t header_len;
  VORN::PROTO::FrameHeader header;
  std::string_view bytes;  ///< header and payload
  bool overlaps;           ///< begins inside another frame that was reported, but not trusted
  uint64_t overlapped;     ///< the offset of that frame
  StreamWindow& window;

  MessageReader messages() const { return {window, offset + header_len, header.data_len}; }
};

/// A start marker that begins no frame.
struct FailedStart {
  uint64_t offset;
  const char* reason;
  unsigned header_len;  ///< 0: no layout byte has arrived
  bool has_header;      ///< `header` holds its fields: false when it is cut off or has a wrong check byte
  VORN::PROTO::FrameHeader header;
};

/// Bytes that belong to no frame.
struct Skipped {
  static constexpr size_t MAX_STARTS = 8;
  static constexpr size_t MAX_HEAD = 64;

  uint64_t offset;
  uint64_t size;
  std::vector<FailedStart> failed_starts;  ///< the first MAX_STARTS
  uint64_t failed_start_count;
  std::string head;  ///< the first MAX_HEAD bytes
};

/// Receives what was found, in the order of offsets. Arguments are valid during the call only.
class StreamSink {
 public:
  virtual ~StreamSink() = default;
  virtual void on_frame(const Frame& frame) = 0;
  virtual void on_skipped(const Skipped& skipped) = 0;
};

class StreamScanner {
 public:
  /// The sink must outlive the scanner.
  StreamScanner(StreamSink& sink, uint32_t max_length) : sink_(sink), max_length_(max_length) {}

  /// Takes the next bytes and reports what is certain by now: a frame as soon as its last byte has arrived, skipped
  /// bytes when the next frame is found. Throws std::bad_alloc and what the sink throws; the scanner cannot be used
  /// afterwards.
  void feed(std::string_view bytes);

  /// The input has ended: reports the rest. Throws like feed().
  void finish();

 private:
  enum class State : uint8_t {
    expect,  ///< a frame is expected at pos_
    search,  ///< any start marker from pos_ on may begin one
    judge    ///< the frame at pos_ was reported: is it trusted?
  };
  enum class HeaderState : uint8_t { incomplete, failed, good };
  struct Candidate {
    uint64_t header_len = 0;
    VORN::PROTO::FrameHeader header{};
    const char* reason = nullptr;
    bool has_header = false;
    uint64_t size() const { return header_len + header.data_len; }
  };

  bool step();
  bool step_search();
  bool step_candidate();
  bool step_judge();

  HeaderState read_header(uint64_t offset, Candidate& candidate) const;
  bool may_look_at(const Candidate& candidate) const;
  uint64_t overlap(uint64_t size) const;
  bool look_into(const Candidate& candidate);
  uint64_t end_of_frames(uint64_t offset, uint64_t limit) const;
  bool header_follows(uint64_t offset, bool& known) const;
  void report(const Candidate& candidate);
  bool reject(const Candidate& candidate, const char* reason);
  void report_skipped();
  void note_head();

  StreamSink& sink_;
  const uint32_t max_length_;
  StreamWindow window_;
  State state_ = State::expect;
  bool ended_ = false;
  uint64_t pos_ = 0;

  uint64_t frame_end_ = 0;        ///< of the frame to judge
  bool frame_plausible_ = false;  ///< readable, and no chain of frames in place of its last messages
  uint64_t searched_end_ = 0;     ///< end of the frames that are being searched; 0: none

  uint64_t covered_ = 0;         ///< frames and skipped bytes are reported up to here
  uint64_t covering_frame_ = 0;  ///< the reported frame that reaches furthest
  uint64_t looked_at_ = 0;       ///< payloads were examined up to here
  uint64_t overlap_spent_ = 0;   ///< bytes that were examined again
  Skipped skipped_{};            ///< what is known about the bytes from covered_ on
};

}  // namespace vorn_inspect
