// An RPC server, with the methods of examples/rpc/service.rb.
//
//   rpc_server [ADDRESS [IDLE_SECONDS]]
//
// ADDRESS defaults to tcp:127.0.0.1:0 (the kernel chooses the port), or is unix:PATH. The first line of output is the
// address. On TERM and INT it answers what was begun, for up to 2 s, and exits.

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "examples/native/service.h"
#include "rpc/server.h"

int main(int argc, char** argv) try {
  const double idle_seconds = argc > 2 ? std::stod(argv[2]) : 60;
  if (!(idle_seconds > 0 && idle_seconds < 1e6)) throw std::invalid_argument("IDLE_SECONDS: from 0 to 1e6");
  VORN::RPC::ServerOptions options;
  options.idle_time = std::chrono::milliseconds(static_cast<int64_t>(idle_seconds * 1000));

  boost::asio::io_context io(1);
  VORN::RPC::Server server(io.get_executor(), argc > 1 ? argv[1] : "tcp:127.0.0.1:0", example::methods(), options);
  boost::asio::signal_set signals(io, SIGTERM, SIGINT);
  signals.async_wait([&server](const boost::system::error_code& error, int) {
    if (!error) server.stop();
  });
  std::cout << "listening on " << server.address() << std::endl;
  io.run();
  return 0;
} catch (const std::exception& e) {
  std::cerr << e.what() << std::endl;
  return 1;
}
