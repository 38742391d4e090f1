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
  open(line);
  add_hex(frame.bytes);
  out_.write(",\"messages\":[");
  const char* separator = "";
  MessageReader messages = frame.messages();
  while (messages.next()) {
    out_.write(separator);
    values_.write(messages.message());
    separator = ",";
  }
  out_.write("]");
  if (!messages.fault().empty()) {
    note_damage();
    const json fault = {{"offset", messages.offset()}, {"reason", messages.fault()}};
    out_.write(",\"fault\":" + fault.dump());
  }
  out_.write("}\n");
}

void JsonReport::on_skipped(const Skipped& skipped) {
  note_damage();
  json starts = json::array();
  for (const FailedStart& start : skipped.failed_starts) starts.push_back(failed_start_to_json(start));
  const json line = {{"type", "skipped"},
                     {"offset", skipped.offset},
                     {"size", skipped.size},
                     {"failed_starts", std::move(starts)},
                     {"failed_start_count", skipped.failed_start_count}};
  open(line);
  add_hex(skipped.head);
  out_.write("}\n");
}

void JsonReport::on_value(const Value& value) {
  open({{"type", "value"}, {"offset", value.offset}, {"size", value.bytes.size()}});
  add_hex(value.bytes);
  out_.write(",\"value\":");
  values_.write(value.encoded());
  out_.write("}\n");
}

void JsonReport::on_failed_value(const FailedValue& failed) {
  note_damage();
  write({{"type", "failed_value"},
         {"offset", failed.offset},
         {"fault", {{"offset", failed.fault_offset}, {"reason", failed.reason}}}});
}

/// Writes an object without its closing brace: the remaining members may be too long to hold in memory.
void JsonReport::open(const json& members) {
  std::string text = members.dump();
  text.pop_back();
  out_.write(text);
}

void JsonReport::add_hex(std::string_view bytes) {
  if (!hex_) return;
  out_.write(",\"hex\":\"");
  write_hex_digits(bytes, out_);
  out_.write("\"");
}

void JsonReport::write(const json& line) {
  out_.write(line.dump());
  out_.write("\n");
}

}  // namespace vorn_inspect
