#include "proto/vorn_exception.h"

#include "proto/vorn_proto_exception.h"
#include "proto/vorn_runtime_error.h"

namespace VORN {

VornException::VornException(const std::string& text) : message(text) {}

// The destructors stand here so that each class's type information has one home.
VornException::~VornException() = default;
VornRuntimeError::~VornRuntimeError() = default;
PROTO::VornProtoException::~VornProtoException() = default;

const char* VornException::what() const noexcept {
  return message.c_str();
}

}  // namespace VORN
