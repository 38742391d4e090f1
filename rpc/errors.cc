#include "rpc/errors.h"

namespace VORN {
namespace RPC {

Error::~Error() = default;
TimedOut::~TimedOut() = default;
ConnectionLost::~ConnectionLost() = default;
BadMessage::~BadMessage() = default;

RemoteError::RemoteError(const std::string& code, const std::string& text)
    : Error(code + ": " + text), code_(code), text_(text) {}

RemoteError::~RemoteError() = default;

Refused::Refused(const std::string& code, const std::string& text) : Error(text), code_(code) {}

Refused::~Refused() = default;

}  // namespace RPC
}  // namespace VORN
