/// The base of all exceptions that the library defines. The message is the whole report: there
/// are no error codes.
#pragma once

#include <exception>
#include <string>

#include "proto/export.h"

namespace VORN {

/// Catch this to catch any failure that the library itself detects. Failures of the standard library (running
/// out of memory, say) are thrown as the standard library throws them.
///
/// A message starts with the qualified name of the operation that failed, a colon and a blank; a failure that
/// only a bug can cause ends in " (internal error)".
class VORN_API VornException : public std::exception {
 public:
  /// Keeps a copy of `message`. Throws std::bad_alloc when there is no memory for it.
  explicit VornException(const std::string& message);
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  VornException(const VornException&) = default;
  VornException& operator=(const VornException&) = default;
  /// @}
  ~VornException() override;

  /// The message, valid as long as this exception.
  const char* what() const noexcept override;

 private:
  std::string message;
};

}  // namespace VORN
