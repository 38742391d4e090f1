#include "examples/native/service.h"

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

#include "rpc/errors.h"
#include "vobject/vobject.h"

namespace example {

using VORN::VObject;
using VORN::VObjectVector;
using VORN::RPC::Refused;

namespace {

constexpr double MAX_PAUSE_SECONDS = 10;
constexpr int64_t MAX_FILL = 1 << 21;

// The service, not the client, decides what a request may cost, so every number from a client passes one of these two
// functions.

double number(const VObject& value, double least, double most) {
  if (value.type() == VORN::DT_INT || value.type() == VORN::DT_DOUBLE) {
    const double number = VORN::to_double(value);
    if (number >= least && number <= most) return number;  // false for NaN
  }
  throw Refused("bad arguments", "number from " + std::to_string(least) + " to " + std::to_string(most) + " wanted");
}

int64_t integer(const VObject& value, int64_t least, int64_t most) {
  if (value.type() == VORN::DT_INT && value.to_i64() >= least && value.to_i64() <= most) return value.to_i64();
  throw Refused("bad arguments", "integer from " + std::to_string(least) + " to " + std::to_string(most) + " wanted");
}

VObject add(VObjectVector& arguments) {
  // Variants encode all 64 bits, and Ruby can read them.
  int64_t sum;
  if (__builtin_add_overflow(integer(arguments[0], INT64_MIN, INT64_MAX), integer(arguments[1], INT64_MIN, INT64_MAX),
                             &sum)) {
    throw Refused("overflow", "the sum needs more than 64 bits");
  }
  return sum;
}

VObject pause(VObjectVector& arguments) {
  std::this_thread::sleep_for(std::chrono::duration<double>(number(arguments[0], 0, MAX_PAUSE_SECONDS)));
  return arguments[0];
}

/// A type of the service's own without an encoding.
class Instant : public VORN::VObjectUDT {
 public:
  bool udt_equals(const VObjectUDT& other) const override { return this == &other; }
  void udt_render(std::string& out) const override { out += "<INSTANT>"; }
};

}  // namespace

VORN::RPC::Methods methods() {
  VORN::RPC::Methods methods;
  methods.add("echo", 1, [](VObjectVector& arguments) { return arguments[0]; });
  methods.add("add", 2, add);
  methods.add("pause", 1, pause);
  methods.add("fill", 1, [](VObjectVector& arguments) {
    return std::string(static_cast<size_t>(integer(arguments[0], 0, MAX_FILL)), 'x');
  });
  methods.add("now", 0, [](VObjectVector&) {
    return boost::shared_ptr<VORN::VObjectUDT>(boost::make_shared<Instant>());  // has no encoding
  });
  methods.add("fail", 0, [](VObjectVector&) -> VObject { throw std::runtime_error("as told"); });
  return methods;
}

}  // namespace example
