// A program that uses the installed library of calls: a call reaches a server, and errors are caught by the classes
// that the headers declare.

#include <boost/asio/io_context.hpp>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

#include "rpc/client.h"
#include "rpc/errors.h"
#include "rpc/server.h"

int main() try {
  using VORN::VObjectVector;
  VORN::RPC::Methods methods;
  methods.add("add", 2, [](VObjectVector& arguments) { return arguments[0].to_i64() + arguments[1].to_i64(); });
  methods.add("refuse", 0, [](VObjectVector&) -> VORN::VObject { throw VORN::RPC::Refused("mine", "no"); });
  boost::asio::io_context io;
  VORN::RPC::Server server(io.get_executor(), "tcp:127.0.0.1:0", methods);
  std::thread thread([&io] { io.run(); });
  bool sum = false;
  std::string code;
  {
    VORN::RPC::Client client(server.address());
    sum = client.call("add", {20, 22}) == VORN::VObject(42);
    try {
      client.call("refuse", {});
    } catch (const VORN::RPC::RemoteError& e) {
      code = e.code();
    }
  }
  server.stop();
  thread.join();
  if (!sum || code != "mine") {
    std::cerr << "calls: failed\n";
    return 1;
  }
  std::cout << "calls work\n";
  return 0;
} catch (const std::exception& e) {
  std::cerr << e.what() << '\n';
  return 1;
}
