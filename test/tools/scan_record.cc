#include "test/tools/scan_record.h"

#include "vobject/render.h"
#include "vobject/vobject.h"

namespace vorn_test {

using namespace vorn_inspect;

namespace {

/// Renders like the library, so that tests can compare the two.
void render(const EncodedValue& encoded, std::string& out) {
  encoded.window.select(encoded.offset, encoded.size);
  VORN::VObject value;
  VORN::VObject::deserialize(encoded.window, encoded.window.payload_end(), value, true, VORN::PROTO::DEFAULT_MAX_DEPTH);
  VORN::render(value, out);
}

template <typename Scanner>
ScanRecord scan_with(std::string_view stream, size_t piece, uint32_t max_length) {
  ScanRecord record;
  Scanner scanner(record, max_length);
  if (piece == 0) piece = stream.size() + 1;
  for (size_t at = 0; at < stream.size(); at += piece) {
    // A separate copy, so that AddressSanitizer finds a view that is kept too long.
    scanner.feed(std::string(stream.substr(at, piece)));
  }
  scanner.finish();
  return record;
}

}  // namespace

void ScanRecord::on_frame(const Frame& frame) {
  std::string line = "frame " + std::to_string(frame.offset) + " layout " + std::to_string(frame.header_len) + " seq " +
                     std::to_string(frame.header.seq) + " length " + std::to_string(frame.header.data_len);
  if (frame.overlaps) line += " overlaps " + std::to_string(frame.overlapped);
  line += ":";
  MessageReader messages = frame.messages();
  while (messages.next()) {
    line += ' ';
    render(messages.message(), line);
  }
  if (!messages.fault().empty()) line += " ! " + std::to_string(messages.offset()) + " " + messages.fault();
  lines.push_back(line);
  spans.push_back({frame.offset, frame.offset + frame.bytes.size(), true});
}

void ScanRecord::on_skipped(const Skipped& skipped) {
  std::string line = "skipped " + std::to_string(skipped.size) + " at " + std::to_string(skipped.offset) + ":";
  for (const FailedStart& start : skipped.failed_starts) {
    line += " " + std::to_string(start.offset) + " " + start.reason + ";";
  }
  line += " of " + std::to_string(skipped.failed_start_count);
  lines.push_back(line);
  spans.push_back({skipped.offset, skipped.offset + skipped.size, false});
}

void ScanRecord::on_value(const Value& value) {
  std::string line = "value " + std::to_string(value.offset) + " size " + std::to_string(value.bytes.size()) + ": ";
  render(value.encoded(), line);
  lines.push_back(line);
}

void ScanRecord::on_failed_value(const FailedValue& failed) {
  lines.push_back("failed " + std::to_string(failed.offset) + ": " + std::to_string(failed.fault_offset) + " " +
                  failed.reason);
}

ScanRecord scan(std::string_view stream, size_t piece, uint32_t max_length) {
  return scan_with<StreamScanner>(stream, piece, max_length);
}

ScanRecord scan_values(std::string_view stream, size_t piece, uint32_t max_length) {
  return scan_with<ValueScanner>(stream, piece, max_length);
}

}  // namespace vorn_test
