#include "rpc/server.h"

#include <utility>

#include "rpc/detail/server_loop.h"

namespace VORN {
namespace RPC {

Server::Server(const boost::asio::any_io_executor& executor, const std::string& address, Methods methods,
               ServerOptions options)
    : loop_(std::make_shared<ServerLoop>(executor, std::move(methods), std::move(options))) {
  loop_->start(Address::parse(address));
}

Server::Server(const boost::asio::any_io_executor& executor, Methods methods, ServerOptions options)
    : loop_(std::make_shared<ServerLoop>(executor, std::move(methods), std::move(options))) {
  loop_->start(std::nullopt);
}

Server::~Server() {
  loop_->shut_down();
}

const std::string& Server::address() const {
  return loop_->address();
}

void Server::serve(std::unique_ptr<Channel> channel) {
  loop_->serve(std::move(channel));
}

void Server::stop() {
  loop_->stop();
}

}  // namespace RPC
}  // namespace VORN
