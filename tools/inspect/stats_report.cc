#include "tools/inspect/stats_report.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vorn_inspect {

using nlohmann::json;

namespace {

constexpr char NOT_LISTED[] = "not listed singly";

void add_counts(const char* title, const std::map<std::string, uint64_t>& counts, std::string& text) {
  if (counts.empty()) return;
  text += title;
  for (const auto& [what, count] : counts) {
    fmt::format_to(std::back_inserter(text), "  {:>12}  {}\n", count, what);
  }
}

/// The columns left for the bar after the numbers, of 80 or of a narrower terminal.
uint64_t bar_width() {
  constexpr long NUMBERS = 40;
  constexpr long USUAL = 80;
  const char* const said = std::getenv("COLUMNS");
  const long columns = said == nullptr ? 0 : std::strtol(said, nullptr, 10);
  return static_cast<uint64_t>(std::clamp(columns <= 0 ? USUAL : columns, NUMBERS + 1, USUAL) - NUMBERS);
}

}  // namespace

void StatsReport::on_frame(const Frame& frame) {
  ++(frame.header_len == VORN::PROTO::PF8_HEADER_LEN ? frames8_ : frames12_);
  sizes_.add(frame.header.data_len);
  if (frame.overlaps) {
    note_damage();
    ++overlapping_;
  }
  sequence_.add(frame.header.seq, frame.offset);
  MessageReader messages = frame.messages();
  while (messages.next()) ++messages_;
  if (!messages.fault().empty()) {
    note_damage();
    ++faults_[messages.fault()];
  }
}

void StatsReport::on_skipped(const Skipped& skipped) {
  note_damage();
  ++skipped_ranges_;
  skipped_bytes_ += skipped.size;
  for (const FailedStart& start : skipped.failed_starts) ++failed_starts_[start.reason];
  const uint64_t unlisted = skipped.failed_start_count - skipped.failed_starts.size();
  if (unlisted != 0) failed_starts_[NOT_LISTED] += unlisted;
}

void StatsReport::on_value(const Value& value) {
  ++messages_;
  sizes_.add(value.bytes.size());
}

void StatsReport::on_failed_value(const FailedValue& failed) {
  note_damage();
  ++faults_[failed.reason];
}

void StatsReport::on_end(uint64_t input_size) {
  if (json_) {
    write_json(input_size);
  } else {
    write_text(input_size);
  }
}

void StatsReport::write_text(uint64_t input_size) {
  std::string text;
  const auto row = [&text](const char* name, uint64_t number) {
    fmt::format_to(std::back_inserter(text), "{:<22}{:>14}\n", name, number);
  };
  row("bytes", input_size);
  if (!values_) {
    row("frames", frames8_ + frames12_);
    row("  8-byte layout", frames8_);
    row("  12-byte layout", frames12_);
    row("  overlapping others", overlapping_);
  }
  row(values_ ? "values" : "messages", messages_);
  if (!values_) {
    row("skipped ranges", skipped_ranges_);
    row("skipped bytes", skipped_bytes_);
  }
  add_faults(text);
  add_histogram(text);
  if (!values_) add_sequence(text);
  out_.write(text);
}

void StatsReport::add_faults(std::string& text) const {
  add_counts(values_ ? "values that cannot be read\n" : "frames with messages that cannot be read\n", faults_, text);
  add_counts("start markers that begin no frame\n", failed_starts_, text);
}

void StatsReport::add_histogram(std::string& text) const {
  if (sizes_.count() == 0) return;
  const auto width = static_cast<double>(bar_width());
  const auto end = std::back_inserter(text);
  fmt::format_to(end, "{}: {} to {} bytes, {:.1f} on average\n", values_ ? "sizes of values" : "sizes of payloads",
                 sizes_.min(), sizes_.max(), static_cast<double>(sizes_.sum()) / static_cast<double>(sizes_.count()));
  uint64_t most = 0;
  for (unsigned i = sizes_.first(); i <= sizes_.last(); ++i) most = std::max(most, sizes_.range(i).count);
  for (unsigned i = sizes_.first(); i <= sizes_.last(); ++i) {
    const Histogram::Range range = sizes_.range(i);
    const double share = static_cast<double>(range.count) / static_cast<double>(most);
    uint64_t bar = static_cast<uint64_t>(share * width);
    if (bar == 0 && range.count != 0) bar = 1;
    fmt::format_to(end, "  {:>10} to {:<10} {:>12} {}\n", range.from, range.to, range.count, std::string(bar, '#'));
  }
}

void StatsReport::add_sequence(std::string& text) const {
  const auto end = std::back_inserter(text);
  fmt::format_to(end, "sequence numbers: {} gaps ({} numbers missing), {} repeats, {} returns to earlier ones\n",
                 sequence_.gaps(), sequence_.missing(), sequence_.repeats(), sequence_.returns());
  for (const SequenceCheck::Jump& jump : sequence_.jumps()) {
    fmt::format_to(end, "  {} is followed by {} at offset {}\n", jump.from, jump.to, jump.offset);
  }
  const uint64_t jumps = sequence_.gaps() + sequence_.repeats() + sequence_.returns();
  if (jumps > sequence_.jumps().size()) {
    fmt::format_to(end, "  ... and {} more\n", jumps - sequence_.jumps().size());
  }
}

void StatsReport::write_json(uint64_t input_size) {
  json out = {{"type", "stats"}, {"bytes", input_size}, {"faults", faults_}};
  json sizes = json::array();
  if (sizes_.count() != 0) {
    for (unsigned i = sizes_.first(); i <= sizes_.last(); ++i) {
      const Histogram::Range range = sizes_.range(i);
      sizes.push_back({{"from", range.from}, {"to", range.to}, {"count", range.count}});
    }
  }
  out["sizes"] = {{"count", sizes_.count()},
                  {"sum", sizes_.sum()},
                  {"min", sizes_.min()},
                  {"max", sizes_.max()},
                  {"histogram", sizes}};
  if (values_) {
    out["values"] = messages_;
  } else {
    json jumps = json::array();
    for (const SequenceCheck::Jump& jump : sequence_.jumps()) {
      jumps.push_back({{"offset", jump.offset}, {"from", jump.from}, {"to", jump.to}});
    }
    out["frames"] = {{"8", frames8_}, {"12", frames12_}, {"overlapping", overlapping_}};
    out["messages"] = messages_;
    out["skipped"] = {{"ranges", skipped_ranges_}, {"bytes", skipped_bytes_}};
    out["failed_starts"] = failed_starts_;
    out["sequence"] = {{"gaps", sequence_.gaps()},
                       {"missing", sequence_.missing()},
                       {"repeats", sequence_.repeats()},
                       {"returns", sequence_.returns()},
                       {"jumps", jumps}};
  }
  out_.write(out.dump());
  out_.write("\n");
}

}  // namespace vorn_inspect
