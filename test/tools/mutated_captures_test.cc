/// 10,000 damaged captures. VORN_SEED and VORN_CAPTURES change the seed and the number.
#include <cstdlib>
#include <exception>
#include <random>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test/support/hex.h"
#include "test/tools/capture.h"
#include "test/tools/scan_record.h"
#include "tools/inspect/json_report.h"
#include "tools/inspect/stats_report.h"
#include "tools/inspect/text_report.h"
#include "vobject/extract_messages.h"

namespace {

using namespace vorn_inspect;
using namespace VORN::PROTO;
using vorn_test::Capture;
using vorn_test::scan;
using vorn_test::ScanRecord;

constexpr uint32_t MAX_LENGTH = 1 << 20;

uint64_t setting(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// Whether the library alone can read all messages of a frame.
bool library_reads(const std::string& bytes) {
  PacketFrameIn in;
  in.reset();
  in.assemble(bytes.data(), bytes.size(), 0);
  if (!in.have_complete_frame()) return false;
  std::vector<VORN::VObject> messages;
  try {
    proto_extract_messages(in, messages);
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

/// Whether a receiver would accept a header at this offset.
bool header_stands_at(const std::string& stream, uint64_t offset) {
  if (offset == stream.size()) return true;
  if (stream[offset] != '\xA5') return false;
  const std::string_view header = std::string_view(stream).substr(offset, 12);
  if (header.size() < 2 || header.size() < frame_header_len(header)) return true;
  return frame_header_check_passes(header) && frame_payload_check_passes(header) &&
         decode_frame_header(header).data_len <= MAX_LENGTH;
}

bool reported(const ScanRecord& record, const Capture::Span& frame) {
  for (const auto& span : record.spans) {
    if (span.is_frame && span.offset == frame.offset && span.end == frame.offset + frame.size) return true;
  }
  return false;
}

/// Whether the frame begins inside a reported frame that nothing contradicts.
bool inside_a_trusted_frame(const ScanRecord& record, const std::string& stream, uint64_t offset) {
  for (const auto& span : record.spans) {
    if (span.is_frame && span.offset < offset && offset < span.end &&
        library_reads(stream.substr(span.offset, span.end - span.offset)) && header_stands_at(stream, span.end)) {
      return true;
    }
  }
  return false;
}

/// Whether each byte is either in a frame or skipped.
bool all_accounted_for(const ScanRecord& record, size_t size) {
  std::vector<int> framed(size), skipped(size);
  for (const auto& span : record.spans) {
    for (uint64_t i = span.offset; i < span.end; ++i) ++(span.is_frame ? framed : skipped).at(i);
  }
  for (size_t i = 0; i < size; ++i) {
    if (skipped[i] != (framed[i] == 0 ? 1 : 0)) return false;
  }
  return true;
}

class MutatedCaptures : public testing::Test {
 protected:
  ~MutatedCaptures() override { ::close(null_); }

  void report_all_ways(const std::string& stream) {
    Output out(null_);
    TextReport text(out, true);
    JsonReport json(out, true);
    StatsReport stats(out, false, false);
    StatsReport json_stats(out, true, false);
    bool first = true;
    bool damage = false;
    for (Report* const report : {static_cast<Report*>(&text), static_cast<Report*>(&json), static_cast<Report*>(&stats),
                                 static_cast<Report*>(&json_stats)}) {
      StreamScanner scanner(*report, MAX_LENGTH);
      scanner.feed(stream);
      scanner.finish();
      report->on_end(stream.size());
      out.flush();
      EXPECT_TRUE(first || damage == report->damage());
      first = false;
      damage = report->damage();
    }
    ValueScanner values(text, MAX_LENGTH);
    values.feed(stream);
    values.finish();
  }

  int null_ = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
};

TEST_F(MutatedCaptures, EveryUndamagedFrameIsFound) {
  std::mt19937_64 random(setting("VORN_SEED", 20240607));
  const uint64_t captures = setting("VORN_CAPTURES", 10000);
  uint64_t undamaged = 0, found = 0, hidden = 0;
  for (uint64_t n = 0; n < captures; ++n) {
    Capture capture(random);
    for (uint64_t times = random() % 6; times > 0; --times) capture.damage();
    const std::string stream = capture.bytes();
    SCOPED_TRACE("capture " + std::to_string(n) + ": " + vorn_test::to_hex(stream));
    const ScanRecord record = scan(stream, 0, MAX_LENGTH);
    ASSERT_TRUE(all_accounted_for(record, stream.size()));
    ASSERT_EQ(record.lines, scan(stream, 1 + random() % 100, MAX_LENGTH).lines);
    for (const Capture::Span& frame : capture.undamaged()) {
      if (!frame.findable) continue;
      ++undamaged;
      if (reported(record, frame)) {
        ++found;
      } else {
        ASSERT_TRUE(inside_a_trusted_frame(record, stream, frame.offset)) << "lost: frame at " << frame.offset;
        ++hidden;
      }
    }
    report_all_ways(stream);
    if (HasFailure()) return;
  }
  std::printf("%llu captures, %llu undamaged frames, %llu found, %llu inside frames that nothing contradicts\n",
              static_cast<unsigned long long>(captures), static_cast<unsigned long long>(undamaged),
              static_cast<unsigned long long>(found), static_cast<unsigned long long>(hidden));
  RecordProperty("undamaged", std::to_string(undamaged));
  RecordProperty("hidden", std::to_string(hidden));
  EXPECT_GT(undamaged, captures);
  EXPECT_LE(hidden, undamaged / 4000);
}

TEST_F(MutatedCaptures, AnUndamagedCaptureIsReportedFrameByFrame) {
  std::mt19937_64 random(setting("VORN_SEED", 4711));
  for (int n = 0; n < 1000; ++n) {
    const Capture capture(random);
    const std::string stream = capture.bytes();
    const ScanRecord record = scan(stream, 0, MAX_LENGTH);
    for (const Capture::Span& frame : capture.undamaged()) ASSERT_TRUE(reported(record, frame));
    for (const auto& span : record.spans) ASSERT_TRUE(span.is_frame) << vorn_test::to_hex(stream);
  }
}

}  // namespace
