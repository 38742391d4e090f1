/// Where UNIX sockets are: paths. Boost.Asio has them on Windows only from some later version than ours on.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <string>

namespace VORN {
namespace RPC {

/// The path of a UNIX socket as an endpoint. Throws std::invalid_argument for one that is too long, and for any where
/// there are no UNIX sockets.
boost::asio::generic::stream_protocol::endpoint local_endpoint(const std::string& path);

/// Removes the file that a killed server leaves behind. A running one keeps its file.
void remove_stale(const boost::asio::any_io_executor& executor, const std::string& path);

}  // namespace RPC
}  // namespace VORN
