#include "rpc/detail/method_runner.h"

#include <cstddef>
#include <exception>
#include <utility>

#include "rpc/detail/journal.h"
#include "rpc/detail/printable.h"
#include "rpc/detail/receiver.h"
#include "rpc/errors.h"
#include "vobject/render.h"

namespace VORN {
namespace RPC {

namespace {

std::string takes(Arity arity) {
  if (arity.least == arity.most) return std::to_string(arity.least);
  if (arity.most == Arity::ANY) return std::to_string(arity.least) + " or more";
  return std::to_string(arity.least) + " to " + std::to_string(arity.most);
}

const Methods::Entry& entry_of(const Methods& methods, const std::string& name, size_t arguments) {
  const Methods::Entry* entry = methods.find(name);
  if (entry == nullptr) {
    std::string text = "no method ";
    escape_str(std::string(shown(name)), text, '"');
    throw Refused("no such method", text);
  }
  if (arguments < entry->arity.least || arguments > entry->arity.most) {
    throw Refused("bad arguments", name + " takes " + takes(entry->arity) + ", not " + std::to_string(arguments));
  }
  return *entry;
}

}  // namespace

MethodRunner::MethodRunner(Methods methods, Around around, Journal& journal)
    : methods_(std::move(methods)), around_(std::move(around)), journal_(journal) {}

void MethodRunner::run(VObject& request, std::unique_ptr<Answer::Receiver> receiver) const {
  VObjectVector& parts = request.getvec();
  const std::string& name = parts[1].getstr();
  VObjectVector& arguments = parts[2].getvec();
  const bool notification = receiver->id.type() == DT_NIL;
  Answer answer(std::move(receiver));
  bool taken = false;  // a method that answers later has the answer
  std::string code = "failed";
  std::string text = "the service failed";
  try {
    const Methods::Entry& entry = entry_of(methods_, name, arguments.size());
    VObject result;
    const auto body = [&] {
      if (entry.body) {
        result = entry.body(arguments);
      } else {
        taken = true;
        entry.later(arguments, std::move(answer));
      }
    };
    bool ran = false;
    if (around_) {
      around_(name, arguments, [&] {
        ran = true;
        body();
      });
      if (!ran) throw Error("the method was not run");
    } else {
      body();
    }
    if (!taken) answer.result(result);
    return;
  } catch (const Refused& e) {
    code = e.code();
    text = e.what();
    if (notification || taken) journal_.write(LogLevel::warning, printable(shown(name)), ": ", printable(text));
  } catch (const std::exception& e) {
    // The log has the details; the client does not see the server's internals.
    journal_.write(LogLevel::error, printable(shown(name)), ": ", printable(e.what()));
  } catch (...) {
    journal_.write(LogLevel::error, printable(shown(name)), ": an exception of no known type");
  }
  if (!taken) answer.error(code, text);
}

}  // namespace RPC
}  // namespace VORN
