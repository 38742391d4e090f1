#pragma once

#include <stdexcept>

namespace rpc {

/// A message that is no request, or no answer: the peer does not speak this protocol.
class BadMessage : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace rpc
