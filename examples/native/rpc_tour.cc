// What a client can do and what can go wrong, one line of output each, against any server of examples/.
//
//   rpc_tour ADDRESS
//
// `rpc_tour ADDRESS call METHOD` makes one call without arguments and exits 1 when it fails.

#include <chrono>
#include <exception>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "rpc/client.h"
#include "rpc/errors.h"
#include "stream/damaged_stream.h"
#include "vobject/vobject.h"

namespace {

using namespace std::chrono_literals;
using VORN::VObject;
using VORN::VObjectVector;
using VORN::RPC::Client;

template <typename Call>
void show(const char* name, Call call) {
  std::cout << name << ": ";
  try {
    std::cout << VObject(call());
  } catch (const VORN::RPC::RemoteError& e) {
    std::cout << e.what() << " (RemoteError)";
  } catch (const VORN::RPC::TimedOut& e) {
    std::cout << e.what() << " (TimedOut)";
  } catch (const VORN::RPC::ConnectionLost& e) {
    std::cout << e.what() << " (ConnectionLost)";
  } catch (const VORN::STREAM::MessageTooLarge& e) {
    std::cout << e.what() << " (MessageTooLarge)";
  }
  std::cout << std::endl;
}

VObject three_pauses(Client& client) {
  VObject finished = VObject::new_vector();
  std::mutex lock;
  std::vector<std::future<void>> calls;
  for (const double seconds : {0.6, 0.4, 0.2}) {
    calls.push_back(std::async(std::launch::async, [&, seconds] {
      const VObject result = client.call("pause", {seconds});
      const std::lock_guard<std::mutex> hold(lock);
      finished.append(result);
    }));
  }
  for (std::future<void>& call : calls) call.get();
  return finished;
}

void tour(Client& client) {
  VObject value = VObject::new_hash();
  value.store("a", VObject(VObjectVector{1, 2.5, VObject(), true, "text", "\xFF"}));
  show("echo", [&] { return client.call("echo", {value}); });
  show("add", [&] { return client.call("add", {20, 22}); });

  const auto began = std::chrono::steady_clock::now();
  std::cout << "three in flight: answered in the order " << three_pauses(client) << std::endl;
  // Sequentially they would take 1.2 s.
  const bool at_once = std::chrono::steady_clock::now() - began < 1100ms;
  std::cout << "three in flight: " << (at_once ? "at once" : "one after the other") << std::endl;

  show("time-out", [&] { return client.call("pause", {0.3}, {100ms, false}); });
  show("after a time-out", [&] { return client.call("echo", {"still here"}); });
  client.call("pause", {0.3});  // long enough for the answer of the timed-out call to arrive
  show("after its answer", [&] { return client.call("echo", {"still here"}); });

  show("unknown method", [&] { return client.call("format_disk", {}); });
  show("wrong arguments", [&] { return client.call("add", {1}); });
  show("result beyond 32 bits", [&] { return client.call("add", {2147483647, 1}); });
  show("failure inside the service", [&] { return client.call("fail", {}); });
  show("result that has no encoding", [&] { return client.call("now", {}); });
  show("too large to send", [&] { return client.call("echo", {std::string(1 << 20, 'x')}); });
  show("too large to answer", [&] { return client.call("fill", {1 << 20}); });
  show("just fits", [&] { return client.call("fill", {(1 << 20) - 100}).getstr().size(); });
  client.close();
  show("behind the end", [&] { return client.call("add", {20, 22}); });
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() != 1 && (arguments.size() != 3 || arguments[1] != "call")) {
    std::cerr << "usage: rpc_tour ADDRESS\n       rpc_tour ADDRESS call METHOD\n";
    return 2;
  }
  Client client(arguments[0]);
  if (arguments.size() == 3) {
    std::cout << client.call(arguments[2], {}) << std::endl;
  } else {
    tour(client);
  }
  return 0;
} catch (const std::exception& e) {
  std::cerr << e.what() << std::endl;
  return 1;
}
