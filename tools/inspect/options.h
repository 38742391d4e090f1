#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorn_inspect {

struct Options {
  std::string input = "-";
  bool json = false;
  bool hex = false;
  bool stats = false;
  bool values = false;
  bool follow = false;
  uint32_t max_length = 64U << 20;
};

/// Parses the command line. Empty: the program should exit with `status`; any message has been printed.
std::optional<Options> parse_options(int argc, char** argv, int& status);

}  // namespace vorn_inspect
