// What a client can do and what can go wrong, one line of output each, against any server of examples/.
//
//   rpc_tour ADDRESS [8 | 12]
//
// The number is the length of the frame headers (default: 8). `rpc_tour ADDRESS call METHOD` makes one call
// without arguments and exits 1 when it fails.

#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "examples/native/rpc_client.h"
#include "vobject/render.h"

namespace {

using namespace std::chrono_literals;
using VORN::VObject;
using VORN::VObjectVector;

std::string text_of(const VObject& value) {
  std::string text;
  VORN::render(value, text);
  return text;
}

template <typename Call>
void show(const char* name, Call call) {
  std::cout << name << ": ";
  try {
    std::cout << text_of(call());
  } catch (const rpc::RemoteError& e) {
    std::cout << e.what() << " (RemoteError)";
  } catch (const rpc::TimedOut& e) {
    std::cout << e.what() << " (TimedOut)";
  } catch (const VORN::STREAM::MessageTooLarge& e) {
    std::cout << e.what() << " (MessageTooLarge)";
  }
  std::cout << std::endl;
}

VObject three_pauses(rpc::RpcClient& client) {
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

void tour(rpc::RpcClient& client) {
  VObject value = VObject::new_hash();
  value.store("a", VObject(VObjectVector{1, 2.5, VObject(), true, "text", "\xFF"}));
  show("echo", [&] { return client.call("echo", {value}); });
  show("add", [&] { return client.call("add", {20, 22}); });

  const auto began = rpc::Clock::now();
  std::cout << "three in flight: answered in the order " << text_of(three_pauses(client)) << std::endl;
  // Sequentially they would take 1.2 s.
  std::cout << "three in flight: " << (rpc::Clock::now() - began < 1100ms ? "at once" : "one after the other")
            << std::endl;

  show("time-out", [&] { return client.call("pause", {0.3}, 100ms); });
  show("after a time-out", [&] { return client.call("echo", {"still here"}); });
  client.call("pause", {0.3});  // long enough for the answer of the timed-out call to arrive
  std::cout << "late answers dropped: " << client.late() << std::endl;

  show("unknown method", [&] { return client.call("format_disk", {}); });
  show("wrong arguments", [&] { return client.call("add", {1}); });
  show("result beyond 32 bits", [&] { return client.call("add", {2147483647, 1}); });
  show("failure inside the service", [&] { return client.call("fail", {}); });
  show("result that has no encoding", [&] { return client.call("now", {}); });
  show("too large to send", [&] { return client.call("echo", {std::string(1 << 20, 'x')}); });
  show("too large to answer", [&] { return client.call("fill", {1 << 20}); });
  show("just fits", [&] { return client.call("fill", {(1 << 20) - 100}).getstr().size(); });
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.empty() || arguments.size() > 3) {
    std::cerr << "usage: rpc_tour ADDRESS [8 | 12]\n       rpc_tour ADDRESS call METHOD\n";
    return 2;
  }
  const bool twelve_byte_header = arguments.size() == 2 && arguments[1] == "12";
  rpc::RpcClient client(arguments[0], twelve_byte_header);
  if (arguments.size() == 3) {
    std::cout << text_of(client.call(arguments[2], {})) << std::endl;
  } else {
    tour(client);
  }
  return 0;
} catch (const std::exception& e) {
  std::cerr << e.what() << std::endl;
  return 1;
}
