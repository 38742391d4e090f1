/// Writes the seed corpus: the shared tables of bytes, in the form that each target reads.
///
///   make_seeds FOLDER      makes FOLDER/<target>/ with a file for each row
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "fuzz/decode_input.h"
#include "test/support/vectors.h"

using namespace vorn_fuzz;

namespace {

constexpr size_t LONGEST = 1024;  // longer rows are repetitions

class Folder {
 public:
  explicit Folder(const std::filesystem::path& path) : path_(path) { std::filesystem::create_directories(path); }

  void add(const std::string& bytes) {
    if (bytes.size() > LONGEST) return;
    const std::filesystem::path file = path_ / std::to_string(++files_);
    std::ofstream(file, std::ios::binary) << bytes;
    if (std::filesystem::file_size(file) != bytes.size()) throw std::runtime_error("cannot write " + file.string());
  }

 private:
  std::filesystem::path path_;
  unsigned files_ = 0;
};

std::string bytes_of(std::initializer_list<unsigned> bytes) {
  std::string out;
  for (const unsigned b : bytes) out += static_cast<char>(b);
  return out;
}

/// How Input::number() reads it.
std::string number(uint64_t n) {
  return n < 0xE0 ? bytes_of({static_cast<unsigned>(n)})
                  : bytes_of({0xE0, static_cast<unsigned>(n >> 8), static_cast<unsigned>(n & 0xFF)});
}

void add_decode_seeds(Folder& folder) {
  for (const auto& v : vorn_test::value_vectors()) {
    folder.add(bytes_of({0}) + v.bytes);
    folder.add(bytes_of({IN_FRAME | SYMBOLS_AS_STRINGS}) + number(v.bytes.size()) + v.bytes);
    folder.add(bytes_of({WITH_END}) + number(v.bytes.size() / 2) + v.bytes);
  }
  for (const auto& v : vorn_test::fault_vectors()) {
    const bool is_limit = v.maxdepth >= 0 && v.maxdepth < 0x10000;
    const std::string maxdepth = is_limit ? number(v.maxdepth) : bytes_of({0xFF, 1});
    if (v.plain_buffer) {
      folder.add(bytes_of({WITH_MAXDEPTH}) + maxdepth + v.bytes);
    } else {
      folder.add(bytes_of({IN_FRAME | WITH_MAXDEPTH}) + number(v.payload) + maxdepth + v.bytes);
    }
    folder.add(bytes_of({WITH_START | WITH_END}) + number(1) + number(v.bytes.size()) + v.bytes);
  }
}

void add_frame_seeds(Folder& folder) {
  for (const auto& v : vorn_test::frame_vectors()) {
    folder.add(bytes_of({0}) + v.stream);
    folder.add(bytes_of({8, 0, 3, 1, 2, 1, 1, 8, 4}) + v.stream);
  }
}

void add_stream_seeds(Folder& folder) {
  for (const auto& v : vorn_test::stream_vectors()) {
    const unsigned skip = v.skip ? 1 : 0;
    folder.add(bytes_of({3, skip, 1, 1}) + v.bytes);
    folder.add(bytes_of({8, skip, 0, 2, 0, 3, 1, 7, 2}) + v.bytes);
  }
}

void add_unpack_seeds(Folder& folder) {
  for (const auto& v : vorn_test::packing_vectors()) folder.add(v.bytes);
}

/// The targets that grow trees read any bytes as choices.
void add_tree_seeds(Folder& folder) {
  for (const auto& v : vorn_test::value_vectors()) folder.add(bytes_of({0, 1, 4, 3}) + v.bytes);
  for (unsigned seed = 0; seed < 64; ++seed) {
    std::string bytes;
    for (unsigned i = 0, x = seed; i < 96; ++i, x = x * 75 + 74) bytes += static_cast<char>(x % 65537 >> 3);
    folder.add(bytes);
  }
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) {
    std::cerr << "usage: make_seeds FOLDER\n";
    return 2;
  }
  const std::filesystem::path root(argv[1]);
  for (const char* target : {"variant_decode", "decode_differential", "value_scan"}) {
    Folder folder(root / target);
    add_decode_seeds(folder);
  }
  for (const char* target : {"round_trip", "merge_diff", "render", "variant_program", "variant_laws"}) {
    Folder folder(root / target);
    add_tree_seeds(folder);
  }
  Folder frames(root / "frame_in");
  add_frame_seeds(frames);
  Folder streams(root / "stream_decoder");
  add_stream_seeds(streams);
  Folder unpack(root / "unpack");
  add_unpack_seeds(unpack);
  return 0;
} catch (const std::exception& e) {
  std::cerr << "make_seeds: " << e.what() << "\n";
  return 1;
}
