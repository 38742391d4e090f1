/// How calls fail.
#pragma once

#include <string>

#include "proto/vorn_runtime_error.h"
#include "rpc/calls_export.h"

namespace VORN {
namespace RPC {

/// What all errors of calls are, except for those of the encoder (stream/stream_encoder.h).
class VORN_CALLS_API Error : public VornRuntimeError {
 public:
  using VornRuntimeError::VornRuntimeError;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  Error(const Error&) = default;
  Error& operator=(const Error&) = default;
  /// @}
  ~Error() override;
};

/// No answer in time. The server may still be working on the call.
class VORN_CALLS_API TimedOut : public Error {
 public:
  using Error::Error;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  TimedOut(const TimedOut&) = default;
  TimedOut& operator=(const TimedOut&) = default;
  /// @}
  ~TimedOut() override;
};

/// There is no connection, or it ended before the answer came. If the request had been sent, the server may have
/// executed it.
class VORN_CALLS_API ConnectionLost : public Error {
 public:
  using Error::Error;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  ConnectionLost(const ConnectionLost&) = default;
  ConnectionLost& operator=(const ConnectionLost&) = default;
  /// @}
  ~ConnectionLost() override;
};

/// The peer does not speak this protocol: a message is no request, or no answer.
class VORN_CALLS_API BadMessage : public Error {
 public:
  using Error::Error;
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  BadMessage(const BadMessage&) = default;
  BadMessage& operator=(const BadMessage&) = default;
  /// @}
  ~BadMessage() override;
};

/// The server has answered with an error. The message is "CODE: TEXT".
class VORN_CALLS_API RemoteError : public Error {
 public:
  /// Throws std::bad_alloc.
  RemoteError(const std::string& code, const std::string& text);
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  RemoteError(const RemoteError&) = default;
  RemoteError& operator=(const RemoteError&) = default;
  /// @}
  ~RemoteError() override;

  /// What kind of error, for programs. The server itself uses "no such method", "bad arguments", "too large", "failed"
  /// and "stopping", which says that the call has not been executed.
  const std::string& code() const { return code_; }
  /// The same for people.
  const std::string& text() const { return text_; }

 private:
  std::string code_;
  std::string text_;
};

/// Thrown by a method of a server, for an error that the client may see. Of all others it sees only "failed".
class VORN_CALLS_API Refused : public Error {
 public:
  /// Throws std::bad_alloc.
  Refused(const std::string& code, const std::string& text);
  /// Copy the message. Throw std::bad_alloc.
  /// @{
  Refused(const Refused&) = default;
  Refused& operator=(const Refused&) = default;
  /// @}
  ~Refused() override;

  /// RemoteError::code() of the client.
  const std::string& code() const { return code_; }

 private:
  std::string code_;
};

}  // namespace RPC
}  // namespace VORN
