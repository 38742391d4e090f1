#include "tools/inspect/options.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "proto/frame_header.h"
#include "tools/inspect/unicode.h"

namespace vorn_inspect {

std::optional<Options> parse_options(int argc, char** argv, int& status) {
  Options options;
  uint64_t max_length = options.max_length;
  CLI::App app("Shows the frames and messages of a captured Vorn RPC byte stream.", "vorn-inspect");
  app.set_version_flag("--version", "vorn-inspect " VORN_INSPECT_VERSION);
  app.add_option("FILE", options.input, "The captured bytes; - or nothing: standard input")->option_text(" ");
  app.add_flag("--json", options.json, "One JSON object per line");
  CLI::Option* const hex = app.add_flag("--hex", options.hex, "Show the bytes too");
  app.add_flag("--stats", options.stats, "Counts, sizes and sequence numbers in place of contents")->excludes(hex);
  app.add_flag("--values", options.values, "The input has values without frames");
  app.add_flag("--follow", options.follow, "Keep reading as the file grows");
  app.add_option("--max-length", max_length,
                 "A frame that announces more bytes counts as damaged; with K, M or G (default: 64M)")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(uint64_t{0}, VORN::PROTO::PF8_MAX_DATA_LEN))
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
  options.max_length = static_cast<uint32_t>(max_length);
  return options;
}

}  // namespace vorn_inspect
