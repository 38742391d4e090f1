// The cost of hostile bytes for a C++ program: the figures of docs/operations/threat-model.md. Each row is measured in
// a separate process. See bin/attack --help.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "proto/packet_frame_in.h"
#include "vobject/extract_messages.h"
#include "vobject/vobject.h"

namespace {

using VORN::VObject;
using VORN::PROTO::PacketBuf;
using VORN::PROTO::PacketFrameIn;

/// A line of /proc/self/status, in bytes; 0 if there is none.
double status(const std::string& name) {
  std::ifstream file("/proc/self/status");
  std::string line;
  while (std::getline(file, line)) {
    if (line.compare(0, name.size() + 1, name + ":") == 0)
      return std::strtod(line.c_str() + name.size() + 1, nullptr) * 1024;
  }
  return 0;
}

double processor_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

/// The work's result must outlive it, so that the result's memory counts.
void measure(const std::string& name, size_t payload, const std::function<void()>& work) {
  std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak resident size
  const double before = status("VmRSS");
  const double started = processor_seconds();
  work();
  const double seconds = processor_seconds() - started;
  const double grown = status("VmHWM") - before;
  const double bytes = static_cast<double>(payload);
  std::printf("%-38s %10zu %8.1f MiB %11.1f %9.3f %8.1f\n", name.c_str(), payload, grown / 1048576, grown / bytes,
              seconds, seconds * 1e9 / bytes);
}

std::string array_of(const std::string& unit, size_t size) {
  std::string payload("\x0A");
  while (payload.size() + unit.size() < size) payload += unit;
  return payload + '\x0B';
}

void measure_decode(const std::string& name, const std::string& payload) {
  PacketBuf buf;
  buf.write_bytes(payload.data(), payload.size());
  buf.set_pos(0);
  VObject value;
  measure(name, payload.size(), [&] { VObject::deserialize(buf, payload.size(), value, true, 64); });
}

/// The header of a frame with a payload of this many bytes.
std::string header(size_t payload) {
  const auto byte = [=](int shift) { return static_cast<char>(payload >> shift & 0xFF); };
  return std::string("\xA5\x01\0\0", 4) + byte(24) + byte(16) + byte(8) + byte(0);
}

/// Measures a frame of nils, each a message.
void measure_messages(size_t size) {
  PacketFrameIn frame;
  frame.reset();
  const std::string bytes = header(size) + std::string(size, '\0');
  frame.assemble(bytes.data(), bytes.size(), 0);
  std::vector<VObject> messages;
  measure("nil, each a message", size, [&] { proto_extract_messages(frame, messages); });
}

std::string hash_of(const std::vector<std::string>& keys) {
  std::string payload("\x08");
  for (const std::string& key : keys) payload += std::string("\x05") + static_cast<char>(key.size()) + key + '\0';
  return payload + '\x09';
}

constexpr int KEYS = 64000;

void measure_keys(const std::string& name, const std::string& front, bool backwards) {
  std::vector<std::string> keys;
  char digits[16];
  for (int i = 0; i < KEYS; ++i) {
    std::snprintf(digits, sizeof digits, "%08d", backwards ? KEYS - i : i);
    keys.push_back(front + digits);
  }
  measure_decode(name, hash_of(keys));
}

/// Announces 1 GiB where the other payloads have 1 MiB.
void measure_announced(size_t size) {
  PacketFrameIn frame;
  frame.reset();
  const std::string bytes = header(1024 * size);
  measure("header that announces 1024 times this", 8, [&] { frame.assemble(bytes.data(), bytes.size(), 0); });
}

void measure_symbols(size_t count) {
  measure("as many names of 16 bytes, interned", count * 18, [=] {
    char name[32];
    for (size_t i = 0; i < count; ++i) {
      std::snprintf(name, sizeof name, "%016zu", i);
      VObject::intern(name);
    }
  });
}

/// Whether the work succeeded in the child process.
bool in_a_process_of_its_own(const std::function<void()>& work) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    work();
    std::fflush(stdout);
    _exit(0);
  }
  int result = 0;
  return child > 0 && waitpid(child, &result, 0) == child && WIFEXITED(result) && WEXITSTATUS(result) == 0;
}

int run(size_t size) {
  const std::vector<std::pair<const char*, std::string>> units = {
      {"nil", std::string(1, '\0')},
      {"empty arrays", "\x0A\x0B"},
      {"empty hashes", "\x08\x09"},
      {"empty strings", std::string("\x05\0", 2)},
      {"hashes of one entry", std::string("\x08\x05\0\0\x09", 5)},
      {"hashes in hashes", std::string("\x08\x05\0\x08\x05\0\0\x09\x09", 9)},
      {"arrays of one hash", "\x0A\x08\x09\x0B"},
      {"doubles", std::string("\x04\x3F\xF8\0\0\0\0\0\0", 9)}};
  std::printf("%-38s %10s %12s %11s %9s %8s\n", "what", "bytes", "memory", "times", "seconds", "ns/byte");
  bool well = true;
  for (const auto& unit : units) {
    well &= in_a_process_of_its_own([&] { measure_decode(unit.first, array_of(unit.second, size)); });
  }
  well &= in_a_process_of_its_own([&] { measure_messages(size); });
  well &= in_a_process_of_its_own([] { measure_keys("64000 keys in order", "", false); });
  well &= in_a_process_of_its_own([] { measure_keys("64000 keys backwards", "", true); });
  well &= in_a_process_of_its_own([] { measure_keys("64000 keys, 90 bytes in common", std::string(90, 'x'), false); });
  well &= in_a_process_of_its_own([=] { measure_announced(size); });
  well &= in_a_process_of_its_own([=] { measure_symbols(size); });
  return well ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  size_t size = 1 << 20;
  if (argc == 3 && std::string(argv[1]) == "--size") {
    size = std::stoul(argv[2]);
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: native_costs [--size N]\n");
    return 2;
  }
  return run(size);
} catch (const std::exception& e) {
  std::fprintf(stderr, "native_costs: %s\n", e.what());
  return 1;
}
