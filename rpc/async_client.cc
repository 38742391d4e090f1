#include "rpc/async_client.h"

#include <utility>

#include "rpc/detail/address.h"
#include "rpc/detail/client_loop.h"

namespace VORN {
namespace RPC {

namespace {

ClientLoop::Connect connect_to(const boost::asio::any_io_executor& executor, const std::string& text) {
  return [executor, address = Address::parse(text)](Clock::time_point, Connected connected) {
    return connect(executor, address, std::move(connected));
  };
}

ClientLoop::Connect connect_by(Connector connector) {
  return [connector = std::move(connector)](Clock::time_point deadline, Connected connected) -> std::function<void()> {
    connector(deadline, std::move(connected));
    return nullptr;
  };
}

}  // namespace

AsyncClient::AsyncClient(const boost::asio::any_io_executor& executor, const std::string& address,
                         ClientOptions options)
    : loop_(std::make_shared<ClientLoop>(executor, connect_to(executor, address), options)) {}

AsyncClient::AsyncClient(const boost::asio::any_io_executor& executor, Connector connector, ClientOptions options)
    : loop_(std::make_shared<ClientLoop>(executor, connect_by(std::move(connector)), options)) {}

AsyncClient::~AsyncClient() {
  loop_->close_behind();
}

void AsyncClient::call(const std::string& name, const VObjectVector& arguments, Handler handler) {
  loop_->call(name, arguments, std::move(handler), loop_->options().calls, false);
}

void AsyncClient::call(const std::string& name, const VObjectVector& arguments, Handler handler,
                       const CallOptions& options) {
  loop_->call(name, arguments, std::move(handler), options, false);
}

void AsyncClient::notify(const std::string& name, const VObjectVector& arguments, Handler handler) {
  loop_->call(name, arguments, std::move(handler), loop_->options().calls, true);
}

void AsyncClient::notify(const std::string& name, const VObjectVector& arguments, Handler handler,
                         const CallOptions& options) {
  loop_->call(name, arguments, std::move(handler), options, true);
}

void AsyncClient::close() {
  loop_->close();
}

}  // namespace RPC
}  // namespace VORN
