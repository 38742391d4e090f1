/// The output for programs: one JSON object per line, with a "type" of "frame", "skipped", "value" or
/// "failed_value". The manual page lists the members.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tools/inspect/json_value.h"
#include "tools/inspect/output.h"
#include "tools/inspect/report.h"

namespace vorn_inspect {

class JsonReport : public Report {
 public:
  /// `hex`: also show the bytes of frames and values, and the first bytes of skipped ranges.
  JsonReport(Output& out, bool hex) : out_(out), hex_(hex), values_(out) {}

  void on_frame(const Frame& frame) override;
  void on_skipped(const Skipped& skipped) override;
  void on_value(const Value& value) override;
  void on_failed_value(const FailedValue& failed) override;
  void on_end(uint64_t) override {}

 private:
  void open(const nlohmann::json& members);
  void add_hex(std::string_view bytes);
  void write(const nlohmann::json& line);

  Output& out_;
  const bool hex_;
  JsonValueWriter values_;
};

}  // namespace vorn_inspect
