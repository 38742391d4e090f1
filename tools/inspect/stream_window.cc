#include "tools/inspect/stream_window.h"

namespace vorn_inspect {

void StreamWindow::append(std::string_view bytes) {
  const uint64_t kept = end_ - first_;
  // Moving no more bytes than were dropped since the last move keeps the cost linear, however long the window is.
  if (first_ >= kept) {
    set_pos(0);
    write_bytes(data().data() + first_, kept);
    origin_ += first_;
    first_ = 0;
    end_ = kept;
  }
  set_pos(end_);
  write_bytes(bytes.data(), bytes.size());
  end_ += bytes.size();
  selected_start_ = selected_end_ = end_;
}

void StreamWindow::select(uint64_t offset, uint64_t size) {
  selected_start_ = offset - origin_;
  selected_end_ = selected_start_ + size;
  set_pos(selected_start_);
}

}  // namespace vorn_inspect
