#include "test/support/vectors.h"

#include <fstream>
#include <stdexcept>

#include "test/support/hex.h"

namespace vorn_test {

namespace {

std::string trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Replaces the string prefixes in a value's notation: "u:61" becomes "t:61".
std::string replace_prefix(std::string notation, char from, char to) {
  for (size_t i = 0; i + 1 < notation.size(); ++i) {
    if (notation[i] == from && notation[i + 1] == ':') notation[i] = to;
  }
  return notation;
}

using Cells = std::vector<std::string>;

std::vector<Cells> read_table(const std::string& file, size_t columns) {
  const std::string path = std::string(VORN_VECTORS_DIR) + "/" + file;
  std::ifstream in(path);
  std::vector<Cells> rows;
  for (std::string line; std::getline(in, line);) {
    if (trim(line).empty() || line[0] == '#') continue;
    Cells cells;
    size_t start = 0;
    for (size_t bar; (bar = line.find('|', start)) != std::string::npos; start = bar + 1) {
      cells.push_back(trim(line.substr(start, bar - start)));
    }
    cells.push_back(trim(line.substr(start)));
    if (cells.size() > columns) throw std::runtime_error(file + ": too many cells: " + line);
    cells.resize(columns, "=");
    rows.push_back(cells);
  }
  if (rows.empty()) throw std::runtime_error("no rows in " + path);
  return rows;
}

std::vector<ValueVector> read_values() {
  std::vector<ValueVector> out;
  for (const Cells& c : read_table("values.txt", 8)) {
    ValueVector v;
    v.name = c[0];
    v.bytes = from_hex(c[1]);
    v.variant = c[4] != "=" ? expand(c[4]) : replace_prefix(replace_prefix(expand(c[2]), 'b', 't'), 'u', 't');
    v.variant_as_strings = c[5] == "=" ? replace_prefix(v.variant, 's', 't') : expand(c[5]);
    v.variant_bytes = c[7] == "=" ? v.bytes : from_hex(c[7]);
    out.push_back(v);
  }
  return out;
}

std::vector<FaultVector> read_faults() {
  std::vector<FaultVector> out;
  for (const Cells& c : read_table("faults.txt", 8)) {
    FaultVector v;
    v.name = c[0];
    v.bytes = from_hex(c[1]);
    v.plain_buffer = c[2] == "all";
    v.payload = v.plain_buffer ? v.bytes.size() : std::stoull(c[2]);
    v.maxdepth = std::stoi(c[3]);
    v.ruby = c[4];
    v.ruby_pos = std::stoull(c[5]);
    v.variant = c[6] == "=" ? v.ruby : c[6];
    v.variant_pos = c[7] == "=" ? v.ruby_pos : std::stoull(c[7]);
    out.push_back(v);
  }
  return out;
}

std::vector<FrameVector> read_frames() {
  std::vector<FrameVector> out;
  for (const Cells& c : read_table("frames.txt", 9)) {
    FrameVector v;
    v.name = c[0];
    v.stream = from_hex(c[1]);
    v.consumed = std::stoull(c[2]);
    v.state = c[3];
    v.layout = c[4] == "-" ? 0 : static_cast<unsigned>(std::stoul(c[4]));
    v.seq = static_cast<uint16_t>(std::stoul(c[5]));
    v.data_len = static_cast<uint32_t>(std::stoul(c[6]));
    v.payload = from_hex(c[7]);
    v.is_written = c[8] == "=";
    out.push_back(v);
  }
  return out;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  if (text.empty()) return parts;
  size_t start = 0;
  for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + separator.size()) {
    parts.push_back(text.substr(start, at - start));
  }
  parts.push_back(text.substr(start));
  return parts;
}

// Options are separated by blanks: a word, or "name=number".
void read_option(const std::string& option, StreamVector& v) {
  const size_t equals = option.find('=');
  const uint32_t number =
      equals == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(option.substr(equals + 1)));
  const std::string name = option.substr(0, equals);
  if (name == "max_length") {
    v.max_length = number;
  } else if (name == "max_depth") {
    v.max_depth = number;
  } else if (name == "symbols") {
    v.symbols = true;
  } else if (name == "skip") {
    v.skip = true;
  } else if (name != "-") {
    throw std::runtime_error("streams.txt: unknown option " + option);
  }
}

std::vector<StreamVector> read_streams() {
  std::vector<StreamVector> out;
  for (const Cells& c : read_table("streams.txt", 5)) {
    StreamVector v{c[0], 1 << 20, 64, false, false, from_hex(c[2]), {}, 0};
    for (const std::string& option : split(c[1], " ")) read_option(option, v);
    if (c[3] != "-") v.outcome = split(expand(c[3]), "; ");
    for (std::string& event : v.outcome) {
      if (event[0] == '<') event = replace_prefix(event, 'u', 't');
    }
    if (c[4] != "=") v.written = static_cast<unsigned>(std::stoul(c[4]));
    out.push_back(v);
  }
  return out;
}

std::vector<PackingVector> read_packing() {
  std::vector<PackingVector> out;
  for (const Cells& c : read_table("packing.txt", 5)) {
    const std::string text = c[3] == "=" ? c[2] : expand(c[3]);
    const std::string variant = c[4] == "=" ? replace_prefix(replace_prefix(text, 'b', 't'), 'u', 't') : c[4];
    const bool only_read = variant.compare(0, 2, "< ") == 0;
    out.push_back({c[0], from_hex(c[1]), only_read ? variant.substr(2) : variant, only_read});
  }
  return out;
}

std::vector<CallVector> read_calls() {
  std::vector<CallVector> out;
  for (const Cells& c : read_table("calls.txt", 3)) {
    CallVector v{c[0], from_hex(c[1]), {}};
    for (const std::string& answer : split(c[2], ";")) {
      if (answer != "-") v.answers.push_back(answer == "closes" ? answer : to_hex(from_hex(answer)));
    }
    out.push_back(v);
  }
  return out;
}

std::vector<VarintVector> read_varints() {
  std::vector<VarintVector> out;
  for (const Cells& c : read_table("group_numbers.txt", 7)) {
    VarintVector v;
    v.name = c[0];
    v.first_byte_bits = static_cast<unsigned>(std::stoul(c[1]));
    v.is_signed = c[2] == "signed";
    v.bytes = from_hex(c[3]);
    v.magnitude = std::stoull(c[4]);
    v.negative = c[5] == "yes";
    v.written = c[6] == "=" ? v.bytes : from_hex(c[6]);
    out.push_back(v);
  }
  return out;
}

}  // namespace

const std::vector<ValueVector>& value_vectors() {
  static const std::vector<ValueVector> rows = read_values();
  return rows;
}

const std::vector<FaultVector>& fault_vectors() {
  static const std::vector<FaultVector> rows = read_faults();
  return rows;
}

const std::vector<FrameVector>& frame_vectors() {
  static const std::vector<FrameVector> rows = read_frames();
  return rows;
}

const std::vector<StreamVector>& stream_vectors() {
  static const std::vector<StreamVector> rows = read_streams();
  return rows;
}

const std::vector<PackingVector>& packing_vectors() {
  static const std::vector<PackingVector> rows = read_packing();
  return rows;
}

const std::vector<CallVector>& call_vectors() {
  static const std::vector<CallVector> rows = read_calls();
  return rows;
}

std::vector<std::string> messages_of(const std::string& frame) {
  return split(frame.substr(1, frame.size() - 2), ", ");
}

const std::vector<VarintVector>& varint_vectors() {
  static const std::vector<VarintVector> rows = read_varints();
  return rows;
}

std::vector<size_t> cuts(size_t length) {
  constexpr size_t NEAR = 100;
  std::vector<size_t> out;
  for (size_t i = 0; i < length; ++i) {
    if (i < NEAR || i + NEAR >= length) out.push_back(i);
  }
  return out;
}

std::ostream& operator<<(std::ostream& out, const ValueVector& v) {
  return out << "values.txt: " << v.name;
}
std::ostream& operator<<(std::ostream& out, const FaultVector& v) {
  return out << "faults.txt: " << v.name;
}
std::ostream& operator<<(std::ostream& out, const FrameVector& v) {
  return out << "frames.txt: " << v.name;
}
std::ostream& operator<<(std::ostream& out, const StreamVector& v) {
  return out << "streams.txt: " << v.name;
}
std::ostream& operator<<(std::ostream& out, const PackingVector& v) {
  return out << "packing.txt: " << v.name;
}
std::ostream& operator<<(std::ostream& out, const VarintVector& v) {
  return out << "group_numbers.txt: " << v.name;
}

}  // namespace vorn_test
