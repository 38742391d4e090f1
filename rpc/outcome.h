/// What has become of a call.
#pragma once

#include <exception>

#include "rpc/calls_export.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

/// A result or an error.
class VORN_CALLS_API Outcome {
 public:
  /// The call has succeeded.
  explicit Outcome(VObject result) noexcept;
  /// The call has failed. REQUIRES: `error` is not null.
  explicit Outcome(std::exception_ptr error) noexcept;

  /// Whether there is a result.
  bool ok() const noexcept { return error_ == nullptr; }

  /// The result. Throws the error if there is none:
  /// - RemoteError: the server has answered with an error
  /// - TimedOut: it has not answered in time; it may have executed the call
  /// - ConnectionLost: there is no connection, or it ended before the answer; unless the message begins with "cannot
  ///   connect", the call may have been executed
  /// - MessageTooLarge, VornRuntimeError: the arguments cannot be sent, and nothing has been
  /// - std::bad_alloc
  const VObject& result() const;

 private:
  VObject result_;
  std::exception_ptr error_;
};

}  // namespace RPC
}  // namespace VORN
