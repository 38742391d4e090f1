/// A scanner's reports, as lines of text, with their bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/inspect/stream_scanner.h"
#include "tools/inspect/value_scanner.h"

namespace vorn_test {

struct ScanRecord : vorn_inspect::StreamSink, vorn_inspect::ValueSink {
  struct Span {
    uint64_t offset;
    uint64_t end;
    bool is_frame;
  };

  void on_frame(const vorn_inspect::Frame& frame) override;
  void on_skipped(const vorn_inspect::Skipped& skipped) override;
  void on_value(const vorn_inspect::Value& value) override;
  void on_failed_value(const vorn_inspect::FailedValue& failed) override;

  std::vector<std::string> lines;
  std::vector<Span> spans;
};

/// The reports for a stream in pieces of this size; 0: in one piece.
ScanRecord scan(std::string_view stream, size_t piece = 0, uint32_t max_length = 1 << 20);
ScanRecord scan_values(std::string_view stream, size_t piece = 0, uint32_t max_length = 1 << 20);

}  // namespace vorn_test
