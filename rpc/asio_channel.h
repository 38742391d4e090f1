/// Channels from streams of Boost.Asio: sockets, boost::asio::ssl::stream, and others that have lowest_layer().
///
///   server.serve(VORN::RPC::make_channel(executor, std::move(tls_stream), "the peer's name"));
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/error_code.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "rpc/channel.h"

namespace VORN {
namespace RPC {

/// Owns a connected stream, behind all handshakes.
template <typename Stream>
class AsioChannel : public Channel {
 public:
  /// REQUIRES: the stream's executor and this one belong to the same context.
  AsioChannel(boost::asio::any_io_executor executor, Stream&& stream, std::string peer)
      : executor_(std::move(executor)), stream_(std::move(stream)), peer_(std::move(peer)) {}

  void read_some(char* into, size_t size, Done done) override {
    stream_.async_read_some(boost::asio::buffer(into, size), boost::asio::bind_executor(executor_, std::move(done)));
  }

  void write(std::string_view bytes, Done done) override {
    boost::asio::async_write(stream_, boost::asio::buffer(bytes.data(), bytes.size()),
                             boost::asio::bind_executor(executor_, std::move(done)));
  }

  void close() noexcept override {
    boost::system::error_code ignored;
#ifdef _WIN32
    // Closing ends what is under way in Windows, but not in Wine.
    stream_.lowest_layer().cancel(ignored);
#endif
    stream_.lowest_layer().close(ignored);
  }

  std::string peer() const override {
    return peer_;
  }

 private:
  boost::asio::any_io_executor executor_;
  Stream stream_;
  std::string peer_;
};

/// A channel that owns the stream. `executor` is the server's or the client's. Throws std::bad_alloc.
template <typename Stream>
std::unique_ptr<Channel> make_channel(boost::asio::any_io_executor executor, Stream stream, std::string peer) {
  static_assert(!std::is_reference<Stream>::value, "the channel owns its stream");
  return std::make_unique<AsioChannel<Stream>>(std::move(executor), std::move(stream), std::move(peer));
}

}  // namespace RPC
}  // namespace VORN
