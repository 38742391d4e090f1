/// What the server offers, apart from how it is reached: the same as examples/rpc/service.rb.
///
///   request  [id, method, arguments]
///   answer   [id, nil, result] or [id, [code, text], nil]
///
/// The id is the client's: an integer of 32 bits or a short string. The answer bears it, so answers may come in
/// any order.
#pragma once

#include <stdexcept>
#include <string>

#include "vobject/vobject.h"

namespace rpc {

/// What can go wrong with a request, as the client is told. Other failures become "failed".
class Refused : public std::runtime_error {
 public:
  Refused(std::string code, const std::string& text) : std::runtime_error(text), code_(std::move(code)) {}
  const std::string& code() const { return code_; }

 private:
  std::string code_;
};

/// Throws BadFrame: whoever sends anything else than requests does not speak this protocol.
void check_request(const VORN::VObject& request);

/// Does what a request asks for and returns the answer. Any thread may call it. REQUIRES: check_request().
VORN::VObject answer_to(const VORN::VObject& request);

VORN::VObject failure(const VORN::VObject& id, const std::string& code, const std::string& text);

/// A line of the log, on standard error; lines of several threads do not mix.
void log_line(const std::string& text);

}  // namespace rpc
