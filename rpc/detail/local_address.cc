#include "rpc/detail/local_address.h"

#include <boost/asio/detail/config.hpp>
#include <stdexcept>
#ifdef BOOST_ASIO_HAS_LOCAL_SOCKETS
#include <sys/stat.h>
#include <unistd.h>
#include <boost/asio/error.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/system/error_code.hpp>
#else
#include <system_error>
#endif

namespace VORN {
namespace RPC {

using Endpoint = boost::asio::generic::stream_protocol::endpoint;

#ifdef BOOST_ASIO_HAS_LOCAL_SOCKETS

using boost::asio::local::stream_protocol;
using boost::system::error_code;

Endpoint local_endpoint(const std::string& path) {
  try {
    return stream_protocol::endpoint(path);
  } catch (const boost::system::system_error& e) {
    throw std::invalid_argument("no address: " + path + ": " + e.code().message());
  }
}

void remove_stale(const boost::asio::any_io_executor& executor, const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
  stream_protocol::socket socket(executor);
  error_code error;
  socket.open(stream_protocol(), error);
  socket.non_blocking(true, error);
  socket.connect(stream_protocol::endpoint(path), error);
  if (error == boost::asio::error::connection_refused) unlink(path.c_str());
}

#else

Endpoint local_endpoint(const std::string& path) {
  const auto reason = std::make_error_code(std::errc::address_family_not_supported);
  throw std::invalid_argument("no address: " + path + ": " + reason.message());
}

void remove_stale(const boost::asio::any_io_executor&, const std::string&) {}

#endif

}  // namespace RPC
}  // namespace VORN
