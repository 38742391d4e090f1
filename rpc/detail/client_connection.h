/// A client's side of one connection: its bytes and messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "rpc/channel.h"
#include "rpc/client_options.h"
#include "rpc/detail/outbox.h"
#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

/// Belongs to the executor. Its operations keep it alive; what ends it, closes it.
class ClientConnection : public std::enable_shared_from_this<ClientConnection> {
 public:
  /// What it tells. Nothing is told any more when it is closed.
  struct Listener {
    std::function<void(const VObject&)> answer;      ///< an answer, which has been checked
    std::function<void()> behind;                    ///< all that has arrived has been told; may throw
    std::function<void(uint64_t)> written;           ///< all batches up to this one are written
    std::function<void(const std::string&)> failed;  ///< it has closed itself, for this reason
  };

  ClientConnection(std::unique_ptr<Channel> channel, const ClientOptions& options, Listener listener);

  /// Begins to read.
  void start();

  /// Takes a request, to be sent by flush(), and returns the number of its batch. Throws as StreamEncoder::frame()
  /// does; nothing will be sent then.
  uint64_t add(const VObject& request);

  void flush();

  /// Whether all of a batch has been written.
  bool has_written(uint64_t batch) const { return outbox_.written() >= batch; }

  void close() noexcept;

 private:
  static constexpr size_t CHUNK = 64 << 10;

  template <typename Action>
  void guard(const Action& action);
  void read();
  void fail(const std::string& reason);

  const std::unique_ptr<Channel> channel_;
  Listener listener_;
  STREAM::StreamDecoder decoder_;
  STREAM::StreamEncoder encoder_;
  Outbox outbox_;
  const std::unique_ptr<char[]> chunk_;  // what was read last; the kernel gives memory for what is used of it
  bool closed_ = false;
};

}  // namespace RPC
}  // namespace VORN
