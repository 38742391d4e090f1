#include "tools/inspect/message_reader.h"

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "proto/vorn_exception.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"
#include "test/tools/written.h"
#include "tools/inspect/json_value.h"
#include "tools/inspect/text_value.h"
#include "vobject/render.h"

namespace {

using namespace vorn_inspect;
using vorn_test::from_hex;
using vorn_test::Written;

/// The messages of a payload as lines of text, and where and why reading stopped.
struct Reading {
  std::vector<std::string> messages;
  std::string fault;
  uint64_t offset;

  bool operator==(const Reading& other) const {
    return messages == other.messages && fault == other.fault && offset == other.offset;
  }
};

Reading read(const std::string& payload) {
  StreamWindow window;
  // Bytes after the payload must not count.
  window.append(payload + "\x0B\x09" + payload);
  MessageReader reader(window, 0, payload.size());
  Reading out;
  while (reader.next()) {
    Written text;
    TextValueWriter(text.output()).write(reader.message());
    out.messages.push_back(text.text());
    Written json;
    JsonValueWriter(json.output()).write(reader.message());
    EXPECT_FALSE(json.text().empty());
  }
  out.fault = reader.fault();
  out.offset = reader.offset();
  return out;
}

/// The library's reading. DEL is the only character that it does not escape.
Reading library_reads(const std::string& payload) {
  StreamWindow window;
  window.append(payload + "\x0B\x09" + payload);
  window.select(0, payload.size());
  Reading out;
  try {
    while (window.pos() < window.payload_end()) {
      VORN::VObject value;
      VORN::VObject::deserialize(window, window.payload_end(), value, true, VORN::PROTO::DEFAULT_MAX_DEPTH);
      std::string text, shown;
      VORN::render(value, text);
      for (const char c : text) c == '\x7F' ? shown += "\\x7f" : shown += c;
      out.messages.push_back(shown);
    }
  } catch (const VORN::VornException& e) {
    out.fault = e.what();
  }
  out.offset = window.pos();
  return out;
}

TEST(MessageReader, ReadsAndRendersLikeTheLibrary) {
  std::vector<std::string> values;
  for (const auto& row : vorn_test::value_vectors()) values.push_back(row.bytes);
  std::mt19937_64 random(20261121);
  const char* const count = std::getenv("VORN_PAYLOADS");
  const uint64_t payloads = count == nullptr ? 20000 : std::strtoull(count, nullptr, 10);
  uint64_t faults = 0, messages = 0;
  for (const std::string& value : values) ASSERT_EQ(library_reads(value), read(value)) << vorn_test::to_hex(value);
  for (uint64_t n = 0; n < payloads; ++n) {
    std::string payload;
    for (uint64_t pieces = random() % 8; pieces > 0; --pieces) {
      static constexpr std::string_view MARKS[] = {"\x08", "\x09", "\x0A", "\x0B", "\x05\x01\x7F", "\x07\x01k", "\x81"};
      const std::string& value = values[random() % values.size()];
      if (random() % 2 == 0)
        payload += MARKS[random() % std::size(MARKS)];
      else if (value.size() < 100)
        payload += value;
    }
    for (uint64_t times = random() % 3; times > 0 && !payload.empty(); --times) {
      payload[random() % payload.size()] = static_cast<char>(random());
    }
    const Reading expected = library_reads(payload);
    ASSERT_EQ(expected, read(payload)) << vorn_test::to_hex(payload);
    faults += expected.fault.empty() ? 0 : 1;
    messages += expected.messages.size();
  }
  std::printf("%llu payloads, %llu messages, %llu with a fault\n", static_cast<unsigned long long>(payloads),
              static_cast<unsigned long long>(messages), static_cast<unsigned long long>(faults));
  EXPECT_GT(faults, payloads / 10);
  EXPECT_GT(messages, payloads / 2);
}

TEST(MessageReader, ReportsAKeyThatIsNoStringLikeTheLibrary) {
  for (const char* const hex :
       {"08 81 82 09", "08 05 00 81 0A 0B 81 09", "0A 08 08 02 81 09 81 09 0B", "08 05 00 08 81 81 09 09"}) {
    const Reading reading = read(from_hex(hex));
    EXPECT_EQ(KEY_IS_NO_STRING, reading.fault);
    EXPECT_EQ(library_reads(from_hex(hex)), reading) << hex;
  }
}

TEST(MessageReader, ReadsAsDeepAsTheLibrary) {
  for (const size_t depth : {63U, 64U, 65U}) {
    const std::string arrays = std::string(depth, '\x0A') + std::string(depth, '\x0B');
    EXPECT_EQ(library_reads(arrays), read(arrays));
    std::string hashes = "\x81";
    for (size_t i = 1; i < depth; ++i) hashes = from_hex("08 05 01 62") + hashes + from_hex("05 01 61 82 09");
    EXPECT_EQ(library_reads(hashes), read(hashes));
    EXPECT_EQ(depth <= 64, read(hashes).fault.empty());
  }
}

}  // namespace
