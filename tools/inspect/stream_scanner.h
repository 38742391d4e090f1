/// Finds the frames of a byte stream that may be damaged, and says what lies between them.
///
///   StreamScanner scanner(sink, max_length);
///   while (... more bytes ...) scanner.feed(bytes);
///   scanner.finish();
///
/// A receiver trusts a header, and one wrong length byte makes it take the frames that follow for payload.
/// This scanner asks for evidence before it believes a length. Three words carry the rules:
///
///   credible   a header with the right check fields and a length within the limit, whose payload has
///   arrived.
///              Where no frame is expected it must have more: readable values to the payload's end, or the
///              12-byte layout, whose check fields are five bytes that do not stand there by chance.
///   trusted    a frame with readable values to its end, behind which the input ends or another header that
///              passes its checks begins; unless at the end of one of its messages frames begin that reach
///              just to its own end (headers are often readable as values).
///   expected   at the beginning, behind a trusted frame, and where the others that were reported end (the
///   one that
///              reaches furthest, if they overlap).
///
/// A credible frame is reported. If it is trusted, the scanner goes on behind it. If it is not, its length
/// may be the damage, so the bytes behind its start marker are searched too, and frames found there are
/// reported as overlapping it. A start marker that begins no credible frame is noted with the reason, and the
/// search goes on one byte further. So every byte of the stream is tried as a start, except inside trusted
/// frames:
///
///   An undamaged frame whose values are readable, or that has the 12-byte layout, is reported, unless it
///   begins inside a trusted frame.
///
/// What that does not cover: damage that moves a frame's end just to a later frame's start and leaves its
/// values readable, the frames between having become bytes of a string (nobody could tell that from a frame);
/// 8-byte frames with unreadable values where none is expected; a frame longer than max_length, which counts
/// as damage; and the following bound. What it costs: a frame whose last messages happen to be the numbers
/// and nils that a header would be, in an undamaged stream, is reported twice, as itself and as the frame
/// that it seems to hold.
///
/// Work is linear. A byte is looked at once for nothing; looking at it again, because frames overlap, is paid
/// for from an allowance of 4 for each byte of the stream so far, and max_length to begin with. Hostile
/// bytes (each start marker announcing much) can use it up; then headers are noted as TOO_MUCH_OVERLAP and
/// not looked into until enough bytes have passed. Memory is bounded by twice what one frame of max_length
/// takes, and one feed().
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

/// Why a start marker begins no frame. The first three are the library's.
extern const char BAD_HEADER[];         ///< the check byte is wrong
extern const char BAD_PAYLOAD_CHECK[];  ///< the check word is wrong; told without waiting for the payload
extern const char TOO_LONG[];           ///< longer than max_length
extern const char CUT_OFF[];            ///< the input ends before the frame
extern const char UNREADABLE[];         ///< where no frame is expected, and its values cannot be read
extern const char TOO_MUCH_OVERLAP[];   ///< not looked into, see above

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
  bool has_header;      ///< `header` is what it says: not when it is cut off or has a wrong check byte
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

/// What is found, in the order of offsets. All that is passed is valid during the call only.
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

  /// Takes the next bytes and reports what can be told by now. A frame is reported as soon as its last byte
  /// has arrived; skipped bytes, when the next frame is found. Throws std::bad_alloc and what the sink
  /// throws; the scanner is then of no more use.
  void feed(std::string_view bytes);

  /// The input has ended: reports the rest. Throws like feed().
  void finish();

 private:
  enum class State : uint8_t {
    expect,  ///< a frame is expected at pos_
    search,  ///< some start marker from pos_ on may begin one
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
  bool frame_plausible_ = false;  ///< readable, and no frames in place of its last messages
  uint64_t searched_end_ = 0;     ///< end of the frames whose insides are searched; 0: none

  uint64_t covered_ = 0;         ///< frames and skipped bytes are reported up to here
  uint64_t covering_frame_ = 0;  ///< the reported frame that reaches furthest
  uint64_t looked_at_ = 0;       ///< payloads were looked into up to here
  uint64_t overlap_spent_ = 0;   ///< bytes that were looked at again
  Skipped skipped_{};            ///< what is known about the bytes from covered_ on
};

}  // namespace vorn_inspect
