/// vorn-inspect: shows what is in a captured byte stream.
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>

#include "proto/frame_header.h"
#include "tools/inspect/byte_source.h"
#include "tools/inspect/json_report.h"
#include "tools/inspect/options.h"
#include "tools/inspect/progress_bar.h"
#include "tools/inspect/stats_report.h"
#include "tools/inspect/text_report.h"
#include "tools/inspect/unicode.h"

namespace {

using namespace vorn_inspect;

constexpr int ALL_WELL = 0;
constexpr int DAMAGE = 1;
constexpr int TROUBLE = 2;

constexpr size_t CHUNK = 256 << 10;
constexpr uint64_t LARGE = 16 << 20;  // inputs that take long enough for a progress bar

std::unique_ptr<Report> make_report(const Options& options, Output& out) {
  if (options.stats) return std::make_unique<StatsReport>(out, options.json, options.values);
  if (options.json) return std::make_unique<JsonReport>(out, options.hex);
  return std::make_unique<TextReport>(out, options.hex);
}

/// Lines that scroll through the same terminal would break up the progress bar.
bool wants_progress(const Options& options, const ByteSource& source) {
  return source.size().value_or(0) >= LARGE && ::isatty(STDERR_FILENO) == 1 &&
         (options.stats || ::isatty(STDOUT_FILENO) == 0);
}

/// Whether these first bytes look like a header from an ordinary writer. Values can begin the same way, so only a
/// hint depends on it.
bool looks_like_frame(std::string_view bytes, uint32_t max_length) {
  using namespace VORN::PROTO;
  if (bytes.size() < PF8_HEADER_LEN || bytes.size() < frame_header_len(bytes)) return false;
  const auto layout = static_cast<uint8_t>(bytes[1]);
  return static_cast<uint8_t>(bytes[0]) == PF_START_MARKER &&
         (layout == PF8_LAYOUT_BYTE || layout == PF12_LAYOUT_BYTE) && frame_header_check_passes(bytes) &&
         frame_payload_check_passes(bytes) && decode_frame_header(bytes).data_len <= max_length;
}

/// Tells a user who reads frames with --values what is wrong.
class FrameHint {
 public:
  explicit FrameHint(const Options& options) : wanted_(options.values), max_length_(options.max_length) {}

  void feed(std::string_view bytes) {
    if (!wanted_) return;
    head_ += bytes.substr(0, VORN::PROTO::PF12_HEADER_LEN - head_.size());
    const bool found = looks_like_frame(head_, max_length_);
    if (found) std::fputs("vorn-inspect: this looks like frames; try without --values\n", stderr);
    wanted_ = !found && head_.size() < VORN::PROTO::PF12_HEADER_LEN;
  }

 private:
  bool wanted_;
  const uint32_t max_length_;
  std::string head_;
};

/// Feeds the input to a scanner, and flushes the output before each wait. A followed file that begins anew is a new
/// stream with a new scanner.
template <typename Scanner>
void scan(const Options& options, Output& out, Report& report) {
  ByteSource source(options.input, options.follow, out.fd());
  out.set_stop(source.stop());
  std::optional<ProgressBar> progress;
  if (wants_progress(options, source)) progress.emplace(*source.size());
  FrameHint hint(options);
  std::vector<char> chunk(CHUNK);
  uint64_t done = 0;
  do {
    Scanner scanner(report, options.max_length);
    for (;;) {
      out.flush();
      const size_t n = source.read(chunk.data(), chunk.size());
      if (n == 0) break;
      hint.feed({chunk.data(), n});
      scanner.feed({chunk.data(), n});
      done += n;
      if (progress) progress->update(done);
    }
    scanner.finish();
  } while (source.begins_anew());
  progress.reset();
  report.on_end(done);
  out.flush();
}

int run(const Options& options) {
  std::signal(SIGPIPE, SIG_IGN);
  Output out(STDOUT_FILENO);
  const std::unique_ptr<Report> report = make_report(options, out);
  try {
    if (options.values) {
      scan<ValueScanner>(options, out, *report);
    } else {
      scan<StreamScanner>(options, out, *report);
    }
  } catch (const OutputClosed&) {
    // The reader of the output has seen enough.
  }
  return report->damage() ? DAMAGE : ALL_WELL;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    int status = ALL_WELL;
    const std::optional<Options> options = parse_options(argc, argv, status);
    return options ? run(*options) : status;
  } catch (const std::bad_alloc&) {
    std::fputs("vorn-inspect: out of memory\n", stderr);
  } catch (const std::exception& e) {
    fmt::print(stderr, "vorn-inspect: {}\n", printable(e.what()));
  }
  return TROUBLE;
}
