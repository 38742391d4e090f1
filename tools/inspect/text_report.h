/// The output for people.
///
///   offset 0  layout 8  seq 7  length 2
///     1
///     true
///   ! skipped 13 bytes at offset 10
///   !   offset 11: Bad Header CRC (layout 12)
///
/// Lines about damage begin with an exclamation mark.
#pragma once

#include <string>

#include "tools/inspect/output.h"
#include "tools/inspect/report.h"
#include "tools/inspect/text_value.h"

namespace vorn_inspect {

class TextReport : public Report {
 public:
  /// `hex`: also show the bytes of frames and values, and the first bytes of skipped ranges.
  TextReport(Output& out, bool hex) : out_(out), hex_(hex), values_(out) {}

  void on_frame(const Frame& frame) override;
  void on_skipped(const Skipped& skipped) override;
  void on_value(const Value& value) override;
  void on_failed_value(const FailedValue& failed) override;
  void on_end(uint64_t) override {}

 private:
  void add_bytes(std::string_view bytes, uint64_t offset);
  void write();

  Output& out_;
  const bool hex_;
  std::string text_;
  TextValueWriter values_;
};

}  // namespace vorn_inspect
