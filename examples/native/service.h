#pragma once

#include "rpc/methods.h"

namespace example {

/// The methods of the server: the same as in examples/rpc/service.rb.
VORN::RPC::Methods methods();

}  // namespace example
