#include "tools/inspect/stream_scanner.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "proto/packet_frame_in.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"
#include "test/tools/capture.h"
#include "test/tools/scan_record.h"

namespace {

using namespace vorn_inspect;
using vorn_test::frame;
using vorn_test::from_hex;
using vorn_test::scan;
using Lines = std::vector<std::string>;

/// Scans the stream whole and in pieces, which must give the same result.
Lines lines(const std::string& stream, uint32_t max_length = 1 << 20) {
  const Lines whole = scan(stream, 0, max_length).lines;
  for (const size_t piece : {1, 2, 7, 11, 64}) EXPECT_EQ(whole, scan(stream, piece, max_length).lines) << piece;
  return whole;
}

TEST(StreamScanner, ReportsFramesWithTheirMessages) {
  EXPECT_EQ((Lines{"frame 0 layout 8 seq 7 length 2: 1 true", "frame 10 layout 12 seq 65535 length 1: nil",
                   "frame 23 layout 8 seq 0 length 0:"}),
            lines(frame(7, from_hex("81 02")) + frame(65535, from_hex("00"), 12) + frame(0, "")));
  EXPECT_EQ(Lines{}, lines(""));
}

TEST(StreamScanner, AcceptsWhatTheAssemblerAccepts) {
  for (const auto& row : vorn_test::frame_vectors()) {
    SCOPED_TRACE(row.name);
    // Only rows with a single frame; bytes around a frame have their own tests.
    if (!row.is_complete() || row.consumed != row.stream.size() || row.data_len + row.layout != row.consumed) continue;
    const auto record = scan(row.stream);
    ASSERT_FALSE(record.spans.empty());
    EXPECT_TRUE(record.spans[0].is_frame);
    EXPECT_EQ(0U, record.spans[0].offset);
    EXPECT_EQ(row.consumed, record.spans[0].end);
  }
}

TEST(StreamScanner, SaysWhyAMessageCannotBeRead) {
  EXPECT_EQ((Lines{"frame 0 layout 8 seq 1 length 3: 1 ! 10 VObject::deserialize: unrecognized protocol "
                   "transport type",
                   "frame 11 layout 8 seq 2 length 1: 2"}),
            lines(frame(1, from_hex("81 0C 81")) + frame(2, from_hex("82"))));
  for (const auto& row : vorn_test::fault_vectors()) {
    if (row.maxdepth != 64 || !row.plain_buffer || row.bytes.empty() || row.name == "key symbol") continue;
    SCOPED_TRACE(row.name);
    const Lines found = scan(frame(1, row.bytes)).lines;
    EXPECT_EQ(row.variant == "none", found[0].find('!') == std::string::npos) << found[0];
    if (row.variant != "none") {
      EXPECT_NE(std::string::npos, found[0].find("! " + std::to_string(8 + row.variant_pos) + " VObject::"))
          << found[0];
    }
  }
}

TEST(StreamScanner, ReportsBytesBetweenFrames) {
  EXPECT_EQ((Lines{"skipped 3 at 0: of 0", "frame 3 layout 8 seq 1 length 0:", "skipped 2 at 11: of 0",
                   "frame 13 layout 8 seq 2 length 0:", "skipped 1 at 21: of 0"}),
            lines("abc" + frame(1, "") + "de" + frame(2, "") + "f"));
}

TEST(StreamScanner, SaysWhyAFrameFailed) {
  std::string header = frame(1, from_hex("81"), 12);
  header[11] = 0x59;
  std::string word = frame(2, from_hex("81"), 12);
  word[10] = '\xEE';
  const std::string length = from_hex("A5 01 00 03 80 00 00 00");
  const std::string good = frame(4, from_hex("82"));
  EXPECT_EQ((Lines{"skipped 34 at 0: 0 Bad Header CRC; 13 Bad Payload Data CRC; 26 Payload size exceeds soft "
                   "limit; of 3",
                   "frame 34 layout 8 seq 4 length 1: 2", "skipped 9 at 43: 43 cut off by the end of the input; of 1"}),
            lines(header + word + length + good + frame(5, "12").substr(0, 9)));
}

TEST(StreamScanner, UsesTheTextsOfTheLibrary) {
  const std::vector<std::pair<std::string, const char*>> faults = {
      {"A5 00 00 01 00 00 00 DE AD BE EF 59", BAD_HEADER},
      {"A5 00 00 01 00 00 00 DE AD BE EE 5A", BAD_PAYLOAD_CHECK},
      {"A5 01 00 01 80 00 00 00", TOO_LONG}};
  for (const auto& [bytes, reason] : faults) {
    const std::string stream = from_hex(bytes);
    VORN::PROTO::PacketFrameIn in;
    in.reset();
    in.assemble(stream.data(), stream.size(), 0);
    EXPECT_STREQ(in.error_message(), reason);
    EXPECT_EQ((Lines{"skipped " + std::to_string(stream.size()) + " at 0: 0 " + reason + "; of 1"}), lines(stream));
  }
}

TEST(StreamScanner, CountsALengthBeyondTheLimitAsDamage) {
  const std::string stream = frame(1, std::string(9, '\0')) + frame(2, std::string(8, '\0'));
  EXPECT_EQ(2U, scan(stream, 0, 9).spans.size());
  EXPECT_EQ((Lines{"skipped 17 at 0: 0 Payload size exceeds soft limit; of 1",
                   "frame 17 layout 8 seq 2 length 8: nil nil nil nil nil nil nil nil"}),
            lines(stream, 8));
}

// A receiver loses these frames: a wrong length makes it read them as payload.
TEST(StreamScanner, FindsTheFramesThatAWrongLengthSwallowed) {
  const std::string others = frame(2, from_hex("82")) + frame(3, from_hex("83")) + frame(4, from_hex("84"));
  for (unsigned length = 2; length < 256; ++length) {
    std::string stream = frame(1, from_hex("81"));
    stream[7] = static_cast<char>(length);
    const Lines found = lines(stream + others);
    unsigned frames = 0;
    for (const std::string& line : found) {
      for (const char* const seq : {" seq 2 length 1", " seq 3 length 1", " seq 4 length 1"}) {
        frames += line.find(seq) == std::string::npos ? 0 : 1;
      }
    }
    EXPECT_EQ(3U, frames) << "length " << length;
  }
}

TEST(StreamScanner, MarksFramesThatOverlap) {
  std::string stream = frame(1, from_hex("81"));
  stream[7] = 4;  // reaches into the next header
  EXPECT_EQ((Lines{"frame 0 layout 8 seq 1 length 4: 1 37 nil", "frame 9 layout 8 seq 2 length 1 overlaps 0: 2"}),
            lines(stream + frame(2, from_hex("82"))));
}

TEST(StreamScanner, DoesNotSearchFramesThatNothingContradicts) {
  const std::string inner = frame(9, from_hex("81"));
  const std::string outer = frame(1, from_hex("05 09") + inner);
  EXPECT_EQ((Lines{"frame 0 layout 8 seq 1 length 11: \"\\xa5\\x01\\x00\\x09\\x00\\x00\\x00\\x01\\x81\"",
                   "frame 19 layout 8 seq 2 length 0:"}),
            lines(outer + frame(2, "")));
}

// Undamaged but ambiguous: the frame's last messages have the form of an empty frame.
TEST(StreamScanner, ReportsBothReadingsOfAFrameThatEndsLikeAnother) {
  EXPECT_EQ((Lines{"frame 0 layout 8 seq 1 length 9: 2 37 nil nil nil nil nil nil",
                   "frame 9 layout 8 seq 0 length 0 overlaps 0:", "frame 17 layout 8 seq 2 length 0:"}),
            lines(frame(1, from_hex("82") + frame(0, "")) + frame(2, "")));
}

TEST(StreamScanner, SearchesATruncatedFrame) {
  std::string stream = frame(1, from_hex("81"));
  stream[5] = 1;
  EXPECT_EQ((Lines{"skipped 9 at 0: 0 cut off by the end of the input; of 1", "frame 9 layout 8 seq 2 length 1: 2",
                   "frame 18 layout 12 seq 3 length 0:"}),
            lines(stream + frame(2, from_hex("82")) + frame(3, "", 12)));
}

TEST(StreamScanner, DoesNotMistakeNoiseForAFrame) {
  EXPECT_EQ((Lines{"skipped 16 at 0: 1 no readable payload, where no frame is expected; of 1",
                   "frame 16 layout 8 seq 1 length 0:"}),
            lines(from_hex("00 A5 01 00 00 00 00 00 05 0C 0C 0C 0C 0C 00 00") + frame(1, "")));
  // The check fields of the 12-byte layout are evidence enough.
  EXPECT_EQ("frame 1 layout 12 seq 1 length 1: ! 14 VObject::deserialize: unrecognized protocol transport type",
            scan("x" + frame(1, from_hex("0C"), 12)).lines.at(1));
}

TEST(StreamScanner, ListsTheFirstStartMarkersOfARange) {
  const Lines found = lines(std::string(1000, '\xA5'));
  ASSERT_EQ(1U, found.size());
  EXPECT_NE(std::string::npos, found[0].find("; of 1000"));
  EXPECT_EQ(8, std::count(found[0].begin(), found[0].end(), ';'));
}

TEST(StreamScanner, KeepsTheFirstBytesOfARange) {
  struct Heads : vorn_test::ScanRecord {
    void on_skipped(const Skipped& skipped) override { heads.push_back(skipped.head); }
    std::vector<std::string> heads;
  };
  std::string noise;
  for (char c = 1; c <= 100; ++c) noise += c;
  for (const size_t piece : {1, 10, 63, 64, 65, 1000}) {
    Heads record;
    StreamScanner scanner(record, 100);
    const std::string stream = frame(1, "") + noise.substr(0, 5) + frame(2, "") + noise;
    for (size_t at = 0; at < stream.size(); at += piece) scanner.feed(std::string(stream.substr(at, piece)));
    scanner.finish();
    EXPECT_EQ((Lines{noise.substr(0, 5), noise.substr(0, 64)}), record.heads) << piece;
  }
}

/// Counts the bytes that the sink must read.
struct Load : StreamSink {
  void on_frame(const Frame& frame) override { bytes += frame.bytes.size(); }
  void on_skipped(const Skipped&) override {}
  uint64_t bytes = 0;
};

// Each start marker announces as much as possible, and everything is readable.
TEST(StreamScanner, HostileStreamsCostLinearWork) {
  constexpr uint32_t MAX = 1 << 20;
  const std::vector<std::string> hostile = {
      from_hex("A5 01 00 00 00 08 00 01"),                          // readable, no header after it
      from_hex("A5 01 00 00 00 0F FF F8"),                          // readable, and so trusted
      from_hex("A5 00 00 00 08 00 01 DE AD BE EF 5A"),              // unreadable, but of 12 bytes
      from_hex("A5 01 00 00 00 00 00 00 A5 01 00 00 00 08 00 01"),  // with trusted frames between them
      from_hex("A5 A5 00 00 00 08 00 A5"),
      from_hex("A5"),
      from_hex("A5 01"),
      from_hex("A5 01 00 00 00 00 00 05")};
  for (const std::string& part : hostile) {
    std::string stream;
    while (stream.size() < 8U << 20) stream += part;
    Load load;
    StreamScanner scanner(load, MAX);
    for (size_t at = 0; at < stream.size(); at += 65536) scanner.feed(std::string_view(stream).substr(at, 65536));
    scanner.finish();
    EXPECT_LE(load.bytes, 5 * stream.size() + 2 * size_t{MAX}) << vorn_test::to_hex(part);
  }
}

TEST(StreamScanner, FindsFramesBehindHostileBytes) {
  std::string stream;
  while (stream.size() < 1U << 20) stream += from_hex("A5 01 00 00 00 01 00 01");
  const std::string last = frame(77, from_hex("83"));
  const std::string found = scan(stream + last, 0, 1 << 17).lines.back();
  EXPECT_EQ(0U, found.find("frame " + std::to_string(stream.size()) + " layout 8 seq 77 length 1")) << found;
}

}  // namespace
