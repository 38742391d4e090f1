#include "tools/inspect/text_report.h"

#include <iterator>

#include <fmt/format.h>

#include "tools/inspect/hex_dump.h"

namespace vorn_inspect {

void TextReport::on_frame(const Frame& frame) {
  const auto text = std::back_inserter(text_);
  fmt::format_to(text, "offset {}  layout {}  seq {}  length {}", frame.offset, frame.header_len, frame.header.seq,
                 frame.header.data_len);
  if (frame.overlaps) {
    note_damage();
    fmt::format_to(text, "  (overlaps the frame at offset {})", frame.overlapped);
  }
  text_ += '\n';
  write();
  add_bytes(frame.bytes, frame.offset);
  MessageReader messages = frame.messages();
  while (messages.next()) {
    out_.write("  ");
    values_.write(messages.message());
    out_.write("\n");
  }
  if (!messages.fault().empty()) {
    note_damage();
    fmt::format_to(text, "!   offset {}: {}\n", messages.offset(), messages.fault());
  }
  write();
}

void TextReport::on_skipped(const Skipped& skipped) {
  note_damage();
  const auto text = std::back_inserter(text_);
  fmt::format_to(text, "! skipped {} {} at offset {}\n", skipped.size, skipped.size == 1 ? "byte" : "bytes",
                 skipped.offset);
  if (skipped.failed_starts.empty()) text_ += "!   no start marker\n";
  for (const FailedStart& start : skipped.failed_starts) {
    fmt::format_to(text, "!   offset {}: {}", start.offset, start.reason);
    if (start.has_header) {
      fmt::format_to(text, " (layout {}, seq {}, length {})", start.header_len, start.header.seq,
                     start.header.data_len);
    } else if (start.header_len != 0) {
      fmt::format_to(text, " (layout {})", start.header_len);
    }
    text_ += '\n';
  }
  if (skipped.failed_start_count > skipped.failed_starts.size()) {
    fmt::format_to(text, "!   ... and {} more start markers that begin no frame\n",
                   skipped.failed_start_count - skipped.failed_starts.size());
  }
  write();
  add_bytes(skipped.head, skipped.offset);
}

void TextReport::on_value(const Value& value) {
  fmt::format_to(std::back_inserter(text_), "offset {}  ", value.offset);
  write();
  values_.write(value.encoded());
  out_.write("\n");
  add_bytes(value.bytes, value.offset);
}

void TextReport::on_failed_value(const FailedValue& failed) {
  note_damage();
  fmt::format_to(std::back_inserter(text_), "! value at offset {}: offset {}: {}\n", failed.offset, failed.fault_offset,
                 failed.reason);
  write();
}

void TextReport::add_bytes(std::string_view bytes, uint64_t offset) {
  if (hex_) write_hex_dump(bytes, offset, out_);
}

void TextReport::write() {
  out_.write(text_);
  text_.clear();
}

}  // namespace vorn_inspect
