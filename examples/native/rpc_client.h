/// A client that many threads may share. Each call is one request; answers are matched by id, so calls of several
/// threads are in flight at once. A client is one connection: when that is lost, create another client.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "examples/native/sockets.h"
#include "stream/stream_encoder.h"
#include "vobject/vobject.h"

namespace rpc {

/// No answer in time. The server may still be working on the call.
class TimedOut : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// There is no connection, or it was lost before the answer came.
class ConnectionLost : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The server answered with an error; what() is "code: text".
class RemoteError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class RpcClient {
 public:
  static constexpr uint32_t MAX_PAYLOAD = 1 << 20;  ///< the server's limit

  /// Throws ConnectionLost "cannot connect: ...".
  RpcClient(const std::string& address, bool twelve_byte_header,
            std::chrono::milliseconds timeout = std::chrono::seconds(5));
  ~RpcClient();
  RpcClient(const RpcClient&) = delete;
  RpcClient& operator=(const RpcClient&) = delete;

  /// Returns the result. Throws RemoteError, TimedOut, ConnectionLost, and what StreamEncoder::frame()
  /// throws for arguments that cannot be sent. A call that ends in TimedOut or ConnectionLost may have been executed:
  /// retry it only if executing it twice does no harm.
  VORN::VObject call(const std::string& method, const VORN::VObjectVector& arguments,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5));

  /// The number of answers that came after their calls had timed out.
  unsigned late() const { return late_; }

 private:
  using Result = std::promise<VORN::VObject>;

  int32_t enter(Result& result);
  void leave(int32_t id);
  void send(const VORN::VObject& request, Clock::time_point deadline);
  void read();
  void accept(const VORN::VObject& answer);
  void lose(const std::string& reason);

  Socket socket_;
  std::mutex writing_;  ///< guards the encoder
  VORN::STREAM::StreamEncoder encoder_;
  std::mutex lock_;  ///< guards the members below
  int32_t last_id_ = 0;
  std::map<int64_t, Result*> calls_;  ///< by id, as wide as an answer's; each belongs to the thread that waits for it
  std::string lost_;                  ///< why the connection was lost; empty while there is one
  std::atomic<unsigned> late_{0};
  std::thread reader_;
};

}  // namespace rpc
