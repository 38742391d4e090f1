/// What a server can do: bodies by the names that clients use. A name from a client is looked up here and nowhere else.
///
///   VORN::RPC::Methods methods;
///   methods.add("add", 2, [](VORN::VObjectVector& arguments) {
///     return arguments[0].to_i64() + arguments[1].to_i64();
///   });
#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <string>

#include "rpc/answer.h"
#include "rpc/calls_export.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

/// How many arguments a method takes.
struct Arity {
  /// For methods that take any number from `least` on.
  static constexpr size_t ANY = std::numeric_limits<size_t>::max();

  /// Exactly so many.
  Arity(size_t count) : least(count), most(count) {}
  /// From the first number to the second. REQUIRES: at_least <= at_most.
  Arity(size_t at_least, size_t at_most);

  size_t least;  ///< so many at least
  size_t most;   ///< and so many at most
};

/// A table of methods. Bodies run on several threads at the same time, unless the server has no workers. Types and
/// ranges of the arguments are theirs to check; the number has been checked.
///
/// A body throws Refused for an error that the client may see, or, if it answers later, calls Answer::error().
/// Everything else that it throws goes to the server's log, and the client gets "failed", unless it has been answered.
class VORN_CALLS_API Methods {
 public:
  /// Returns the result. The arguments may be moved out of. What the result shares with other values, nobody may
  /// change.
  using Body = std::function<VObject(VObjectVector& arguments)>;
  /// Answers whenever it likes, also after it has returned, and from any thread.
  using LaterBody = std::function<void(VObjectVector& arguments, Answer answer)>;

  Methods();
  ~Methods();
  /// Copy and move the table. Copying throws std::bad_alloc.
  /// @{
  Methods(const Methods&);
  Methods(Methods&&) noexcept;
  Methods& operator=(const Methods&);
  Methods& operator=(Methods&&) noexcept;
  /// @}

  /// Adds a method, or replaces the one of this name. Return this table. Throw std::bad_alloc; std::invalid_argument
  /// for an empty body.
  /// @{
  Methods& add(const std::string& name, Arity arity, Body body);
  Methods& add_later(const std::string& name, Arity arity, LaterBody body);
  /// @}

  /// A method.
  struct Entry {
    Arity arity;      ///< how many arguments it takes
    Body body;        ///< empty if it answers later
    LaterBody later;  ///< empty if it does not
  };

  /// The method of this name, or null. Valid until the table changes.
  const Entry* find(const std::string& name) const;

 private:
  std::map<std::string, Entry> entries_;
};

}  // namespace RPC
}  // namespace VORN
