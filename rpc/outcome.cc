#include "rpc/outcome.h"

#include <cassert>
#include <utility>

namespace VORN {
namespace RPC {

Outcome::Outcome(VObject result) noexcept : result_(std::move(result)) {}

// NOLINTNEXTLINE(bugprone-throw-keyword-missing): it is thrown by result()
Outcome::Outcome(std::exception_ptr error) noexcept : error_(std::move(error)) {
  assert(error_ != nullptr);
}

const VObject& Outcome::result() const {
  if (error_) std::rethrow_exception(error_);
  return result_;
}

}  // namespace RPC
}  // namespace VORN
