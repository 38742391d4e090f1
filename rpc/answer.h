/// The answer that a method of a server owes.
#pragma once

#include <memory>
#include <string>

#include "rpc/calls_export.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

/// Given to a method that answers later. Any thread may answer, once; one thread at a time uses an Answer. Dropped
/// unanswered, it sends the error "failed". To a notification, whatever is answered goes nowhere.
///
/// May outlive the connection and the server: then it does nothing.
class VORN_CALLS_API Answer {
 public:
  /// Where it goes to. Made by the server.
  struct Receiver;

  /// Made by the server.
  explicit Answer(std::unique_ptr<Receiver> receiver) noexcept;
  /// The source can then only be destroyed or assigned to. An answer that is overwritten is dropped.
  /// @{
  Answer(Answer&& src) noexcept;
  Answer& operator=(Answer&& src) noexcept;
  /// @}
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer();

  /// Answers with a result. It is encoded later, so nobody may change what it shares with other values. Throws
  /// std::bad_alloc, and has not answered then. REQUIRES: not answered yet.
  void result(const VObject& value);

  /// Answers with an error: RemoteError::code() and RemoteError::text() of the client. Throws std::bad_alloc, and has
  /// not answered then. REQUIRES: not answered yet.
  void error(const std::string& code, const std::string& text);

  /// Whether there is still a client who can get it. REQUIRES: not answered yet.
  bool wanted() const;

 private:
  void drop() noexcept;

  std::unique_ptr<Receiver> receiver_;  // null: answered
};

}  // namespace RPC
}  // namespace VORN
