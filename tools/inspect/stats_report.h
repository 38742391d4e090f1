/// Counts instead of contents, written at the end as text or as one JSON object.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tools/inspect/histogram.h"
#include "tools/inspect/output.h"
#include "tools/inspect/report.h"
#include "tools/inspect/sequence_check.h"

namespace vorn_inspect {

class StatsReport : public Report {
 public:
  /// `values`: the input is values without frames.
  StatsReport(Output& out, bool json, bool values) : out_(out), json_(json), values_(values) {}

  void on_frame(const Frame& frame) override;
  void on_skipped(const Skipped& skipped) override;
  void on_value(const Value& value) override;
  void on_failed_value(const FailedValue& failed) override;
  void on_end(uint64_t input_size) override;

 private:
  void write_text(uint64_t input_size);
  void write_json(uint64_t input_size);
  void add_faults(std::string& text) const;
  void add_histogram(std::string& text) const;
  void add_sequence(std::string& text) const;

  Output& out_;
  const bool json_;
  const bool values_;
  uint64_t frames8_ = 0;
  uint64_t frames12_ = 0;
  uint64_t overlapping_ = 0;
  uint64_t messages_ = 0;  ///< or values
  uint64_t skipped_ranges_ = 0;
  uint64_t skipped_bytes_ = 0;
  std::map<std::string, uint64_t> faults_;         ///< by text: frames whose messages cannot be read, and values
  std::map<std::string, uint64_t> failed_starts_;  ///< by reason
  Histogram sizes_;                                ///< of payloads or values
  SequenceCheck sequence_;
};

}  // namespace vorn_inspect
