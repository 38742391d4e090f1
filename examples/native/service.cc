#include "examples/native/service.h"

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

#include "examples/native/bad_message.h"
#include "vobject/render.h"

namespace rpc {

using VORN::VObject;
using VORN::VObjectVector;

namespace {

constexpr double MAX_PAUSE_SECONDS = 10;
constexpr int64_t MAX_FILL = 1 << 21;
constexpr size_t MAX_ID_BYTES = 64;  // leaves room for the error answer, which repeats the id

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

VObject add(const VObjectVector& arguments) {
  if (arguments[0].type() != VORN::DT_INT || arguments[1].type() != VORN::DT_INT) {
    throw Refused("bad arguments", "add takes integers");
  }
  // Variants encode all 64 bits, and Ruby can read them.
  int64_t sum;
  if (__builtin_add_overflow(arguments[0].to_i64(), arguments[1].to_i64(), &sum)) {
    throw Refused("overflow", "the sum needs more than 64 bits");
  }
  return sum;
}

VObject pause(const VObjectVector& arguments) {
  std::this_thread::sleep_for(std::chrono::duration<double>(number(arguments[0], 0, MAX_PAUSE_SECONDS)));
  return arguments[0];
}

VObject fill(const VObjectVector& arguments) {
  return std::string(static_cast<size_t>(integer(arguments[0], 0, MAX_FILL)), 'x');
}

/// A type of the service's own without an encoding.
class Instant : public VORN::VObjectUDT {
 public:
  bool udt_equals(const VObjectUDT& other) const override { return this == &other; }
  void udt_render(std::string& out) const override { out += "<INSTANT>"; }
};

struct Method {
  size_t arity;
  std::function<VObject(const VObjectVector&)> body;
};

const std::map<std::string, Method>& methods() {
  static const std::map<std::string, Method> table = {
      {"echo", {1, [](const VObjectVector& arguments) { return arguments[0]; }}},
      {"add", {2, add}},
      {"pause", {1, pause}},
      {"fill", {1, fill}},
      {"now",
       {0, [](const VObjectVector&) { return boost::shared_ptr<VORN::VObjectUDT>(boost::make_shared<Instant>()); }}},
      {"fail", {0, [](const VObjectVector&) -> VObject { throw std::runtime_error("as told"); }}}};
  return table;
}

VObject call(const std::string& name, const VObjectVector& arguments) {
  const auto found = methods().find(name);
  if (found == methods().end()) {
    std::string text = "no method ";
    VORN::escape_str(name.substr(0, 40), text, '"');
    throw Refused("no such method", text);
  }
  const Method& method = found->second;
  if (arguments.size() != method.arity) {
    throw Refused("bad arguments",
                  name + " takes " + std::to_string(method.arity) + ", not " + std::to_string(arguments.size()));
  }
  return method.body(arguments);
}

/// Whether a client may use this id: a Ruby server would cut one beyond 32 bits. A notification has nil.
bool is_id(const VObject& id) {
  if (id.type() == VORN::DT_NIL) return true;
  if (id.type() == VORN::DT_STR) return id.getstr().size() <= MAX_ID_BYTES;
  return id.type() == VORN::DT_INT && id.to_i64() >= std::numeric_limits<int32_t>::min() &&
         id.to_i64() <= std::numeric_limits<int32_t>::max();
}

}  // namespace

void check_request(const VObject& request) {
  const auto has_form = [](const VObjectVector& parts) {
    return parts.size() == 3 && is_id(parts[0]) && parts[1].type() == VORN::DT_STR &&
           parts[2].type() == VORN::DT_VECTOR;
  };
  if (request.type() != VORN::DT_VECTOR || !has_form(request.getvec())) throw BadMessage("not a request");
}

VObject answer_to(const VObject& request) {
  const VObjectVector& parts = request.getvec();
  const VObject& id = parts[0];
  const bool notification = id.type() == VORN::DT_NIL;
  try {
    VObject result = call(parts[1].getstr(), parts[2].getvec());
    return notification ? VObject() : VObject(VObjectVector{id, VObject(), std::move(result)});
  } catch (const Refused& e) {
    return notification ? VObject() : failure(id, e.code(), e.what());
  } catch (const std::exception& e) {
    // The log has the details; the client does not see the server's internals.
    log_line(std::string(parts[1].getstr()) + ": " + e.what());
    return notification ? VObject() : failure(id, "failed", "the service failed");
  }
}

VObject failure(const VObject& id, const std::string& code, const std::string& text) {
  return VObject(VObjectVector{id, VObject(VObjectVector{code, text}), VObject()});
}

void log_line(const std::string& text) {
  static std::mutex lock;
  const std::lock_guard<std::mutex> hold(lock);
  std::cerr << text << std::endl;
}

}  // namespace rpc
