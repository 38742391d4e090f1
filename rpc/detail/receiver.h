#pragma once

#include <memory>

#include "rpc/answer.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

class Inbox;
class Journal;
class ServerConnection;

/// The client that an answer goes to. Made for each request.
struct Answer::Receiver {
  std::shared_ptr<Inbox> inbox;
  std::shared_ptr<ServerConnection> connection;
  VObject id;  ///< nil: a notification, nobody gets the answer

  /// Sends a message, or nothing if it is nil. Throws std::bad_alloc.
  void send(const VObject& message) const;
};

}  // namespace RPC
}  // namespace VORN
