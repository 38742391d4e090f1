/// The methods of the server, independent of the transport: the same as in examples/rpc/service.rb.
///
///   request  [id, method, arguments]
///   answer   [id, nil, result] or [id, [code, text], nil]
///
/// The client chooses the id: an integer of 32 bits or a short string. The answer repeats it, so answers may come in
/// any order.
#pragma once

#include <stdexcept>
#include <string>

#include "vobject/vobject.h"

namespace rpc {

/// A failure that the client may see. Other failures become "failed".
class Refused : public std::runtime_error {
 public:
  Refused(std::string code, const std::string& text) : std::runtime_error(text), code_(std::move(code)) {}
  const std::string& code() const { return code_; }

 private:
  std::string code_;
};

/// Throws BadMessage: a client that sends anything but requests does not speak this protocol.
void check_request(const VORN::VObject& request);

/// Executes a request and returns the answer; nil for a notification. Any thread may call it.
///
/// REQUIRES: check_request().
VORN::VObject answer_to(const VORN::VObject& request);

VORN::VObject failure(const VORN::VObject& id, const std::string& code, const std::string& text);

/// Writes a line to standard error; lines of several threads do not mix.
void log_line(const std::string& text);

}  // namespace rpc
