#include "tools/inspect/json_report.h"

#include <utility>

#include "tools/inspect/hex_dump.h"

namespace vorn_inspect {

using nlohmann::json;

namespace {

json failed_start_to_json(const FailedStart& start) {
  json out = {{"offset", start.offset}, {"reason", start.reason}};
  if (start.header_len != 0) out["layout"] = start.header_len;
  if (start.has_header) {
    out["seq"] = start.header.seq;
    out["length"] = start.header.data_len;
  }
  return out;
}

}  // namespace

void JsonReport::on_frame(const Frame& frame) {
  json line = {{"type", "frame"},
               {"offset", frame.offset},
               {"layout", frame.header_len},
               {"seq", frame.header.seq},
               {"length", frame.header.data_len}};
  if (frame.overlaps) {
    note_damage();
    line["overlaps"] = frame.overlapped;
  }
  if (hex_) line["hex"] = hex_digits(frame.bytes);
  json values = json::array();
  MessageReader messages = frame.messages();
  VORN::VObject message;
  while (messages.next(message)) values.push_back(converter_.convert(message));
  line["messages"] = std::move(values);
  if (!messages.fault().empty()) {
    note_damage();
    line["fault"] = {{"offset", messages.offset()}, {"reason", messages.fault()}};
  }
  write(line);
}

void JsonReport::on_skipped(const Skipped& skipped) {
  note_damage();
  json starts = json::array();
  for (const FailedStart& start : skipped.failed_starts) starts.push_back(failed_start_to_json(start));
  json line = {{"type", "skipped"},
               {"offset", skipped.offset},
               {"size", skipped.size},
               {"failed_starts", std::move(starts)},
               {"failed_start_count", skipped.failed_start_count}};
  if (hex_) line["hex"] = hex_digits(skipped.head);
  write(line);
}

void JsonReport::on_value(const Value& value) {
  json line = {{"type", "value"},
               {"offset", value.offset},
               {"size", value.bytes.size()},
               {"value", converter_.convert(value.value)}};
  if (hex_) line["hex"] = hex_digits(value.bytes);
  write(line);
}

void JsonReport::on_failed_value(const FailedValue& failed) {
  note_damage();
  write({{"type", "failed_value"},
         {"offset", failed.offset},
         {"fault", {{"offset", failed.fault_offset}, {"reason", failed.reason}}}});
}

void JsonReport::write(const json& line) {
  out_.write(line.dump());
  out_.write("\n");
}

}  // namespace vorn_inspect
