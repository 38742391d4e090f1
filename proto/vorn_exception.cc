#include "proto/vorn_exception.h"

#include "proto/vorn_proto_exception.h"
#include "proto/vorn_runtime_error.h"

namespace VORN {

VornException::VornException(const std::string& text) : message(text) {}

// Out of line, so that each class has one copy of its type information.
VornException::~VornException() = default;
VornRuntimeError::~VornRuntimeError() = default;
PROTO::VornProtoException::~VornProtoException() = default;

const char* VornException::what() const noexcept {
  return message.c_str();
}

}  // namespace VORN
