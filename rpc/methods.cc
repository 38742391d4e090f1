#include "rpc/methods.h"

#include <cassert>
#include <stdexcept>
#include <utility>

namespace VORN {
namespace RPC {

Arity::Arity(size_t at_least, size_t at_most) : least(at_least), most(at_most) {
  assert(at_least <= at_most);
}

Methods::Methods() = default;
Methods::~Methods() = default;
Methods::Methods(const Methods&) = default;
Methods::Methods(Methods&&) noexcept = default;
Methods& Methods::operator=(const Methods&) = default;
Methods& Methods::operator=(Methods&&) noexcept = default;

Methods& Methods::add(const std::string& name, Arity arity, Body body) {
  if (!body) throw std::invalid_argument("no body of a method: " + name);
  entries_.insert_or_assign(name, Entry{arity, std::move(body), nullptr});
  return *this;
}

Methods& Methods::add_later(const std::string& name, Arity arity, LaterBody body) {
  if (!body) throw std::invalid_argument("no body of a method: " + name);
  entries_.insert_or_assign(name, Entry{arity, nullptr, std::move(body)});
  return *this;
}

const Methods::Entry* Methods::find(const std::string& name) const {
  const auto found = entries_.find(name);
  return found == entries_.end() ? nullptr : &found->second;
}

}  // namespace RPC
}  // namespace VORN
