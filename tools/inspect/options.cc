#include "tools/inspect/options.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <charconv>
#include <string>

#include "proto/frame_header.h"
#include "tools/inspect/unicode.h"

namespace vorn_inspect {

namespace {

/// Reads a number of bytes, or of units of 1024 bytes and its powers. Returns a text that says what is wrong, or an
/// empty one.
std::string parse_size(const std::string& text, uint32_t& size) {
  constexpr uint64_t MOST = VORN::PROTO::PF8_MAX_DATA_LEN;
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [unit, error] = std::from_chars(text.data(), end, number);
  unsigned shift = 0;
  if (end - unit == 1) {
    switch (*unit) {
      case 'k':
      case 'K': shift = 10; break;
      case 'm':
      case 'M': shift = 20; break;
      case 'g':
      case 'G': shift = 30; break;
    }
  }
  if (error == std::errc::invalid_argument || unit != end - (shift != 0 ? 1 : 0)) {
    return "a number of bytes, or one with K, M or G, is expected";
  }
  if (error != std::errc() || number > MOST >> shift) return fmt::format("at most {} bytes", MOST);
  size = static_cast<uint32_t>(number << shift);
  return {};
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv, int& status) {
  Options options;
  CLI::App app("Shows the frames and messages of a captured Vorn RPC byte stream.", "vorn-inspect");
  app.set_version_flag("--version", "vorn-inspect " VORN_INSPECT_VERSION);
  app.add_option("FILE", options.input, "The captured bytes; - or nothing: standard input")->option_text(" ");
  app.add_flag("--json", options.json, "One JSON object per line");
  CLI::Option* const hex = app.add_flag("--hex", options.hex, "Show the bytes too");
  app.add_flag("--stats", options.stats, "Counts, sizes and sequence numbers in place of contents")->excludes(hex);
  app.add_flag("--values", options.values, "The input has values without frames");
  app.add_flag("--follow", options.follow, "Keep reading as the file grows");
  std::string max_length;
  app.add_option("--max-length", max_length,
                 "A frame that announces more bytes counts as damaged; with K, M or G (default: 64M)")
      ->check([&](const std::string& text) { return parse_size(text, options.max_length); })
      ->option_text("SIZE");
  app.footer("Exit status: 0 no damage, 1 damage was found, 2 an error in the command line or the input.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    status = 0;
    if (e.get_exit_code() == 0) {
      app.exit(e);
    } else {
      fmt::print(stderr, "vorn-inspect: {} (see --help)\n", printable(e.what()));
      status = 2;
    }
    return std::nullopt;
  }
  return options;
}

}  // namespace vorn_inspect
