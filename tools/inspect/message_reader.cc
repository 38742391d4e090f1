#include "tools/inspect/message_reader.h"

#include "proto/vorn_exception.h"

namespace vorn_inspect {

MessageReader::MessageReader(StreamWindow& window, uint64_t offset, uint64_t size) : window_(window) {
  window_.select(offset, size);
}

bool MessageReader::next(VORN::VObject& message) {
  if (!fault_.empty() || window_.pos() >= window_.payload_end()) return false;
  try {
    VORN::VObject::deserialize(window_, window_.payload_end(), message, true, MAX_DEPTH);
    return true;
  } catch (const VORN::VornException& e) {
    fault_ = e.what();
    return false;
  }
}

}  // namespace vorn_inspect
