// Each call ends exactly once, whatever becomes of its connection.

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "rpc/async_client.h"
#include "rpc/errors.h"
#include "test/rpc/rpc_fixture.h"

using namespace VORN;
using namespace vorn_test;
using namespace std::chrono_literals;

namespace {

constexpr int CALLS = 3000;

// Forwards between the client and the server, and cuts each connection after a random number of bytes.
class CuttingProxy {
 public:
  explicit CuttingProxy(std::string address) : address_(std::move(address)), thread_([this] { run(); }) {}
  ~CuttingProxy() {
    done_ = true;
    thread_.join();
    for (std::thread& thread : connections_) thread.join();
  }
  CuttingProxy(const CuttingProxy&) = delete;
  CuttingProxy& operator=(const CuttingProxy&) = delete;

  const std::string& address() const { return listener_.address(); }
  int cuts() const { return cuts_; }

 private:
  void run() {
    std::mt19937 random(1);  // the same in every run
    while (!done_) {
      if (!listener_.waiting(5ms)) continue;
      auto client = std::make_shared<Peer>(listener_.accept());
      connections_.emplace_back([this, client, left = random() % 3000] { forward(*client, left); });
    }
  }

  void forward(Peer& client, size_t left) {
    Peer server(address_);
    const std::pair<Peer*, Peer*> directions[] = {{&client, &server}, {&server, &client}};
    while (!done_) {
      for (const auto& [from, to] : directions) {
        if (!from->readable(1ms)) continue;
        const std::string bytes = from->receive();
        if (bytes.empty()) return;
        to->send(std::string_view(bytes).substr(0, left));
        if (bytes.size() >= left) {
          ++cuts_;
          return left % 2 == 0 ? client.reset() : client.close();
        }
        left -= bytes.size();
      }
    }
  }

  const std::string address_;
  const Listener listener_;
  std::atomic<bool> done_{false};
  std::atomic<int> cuts_{0};
  std::vector<std::thread> connections_;
  std::thread thread_;
};

}  // namespace

TEST(RpcExactlyOnce, CallsOverCutConnections) {
  std::vector<std::atomic<int>> executed(CALLS);
  RPC::Methods methods;
  methods.add("execute", 1, [&](VObjectVector& arguments) {
    ++executed[static_cast<size_t>(arguments[0].to_i64())];
    return arguments[0];
  });
  RunningServer server(methods);
  std::vector<int> ends(CALLS);
  int ok = 0;
  int lost = 0;
  int cuts = 0;
  {
    CuttingProxy proxy(server.address());
    boost::asio::io_context io;
    RPC::AsyncClient client(io.get_executor(), proxy.address());
    int next = 0;
    // Sixteen are in flight at any time; every third may be repeated.
    std::function<void()> begin = [&] {
      if (next == CALLS) {
        if (ok + lost == CALLS) client.close();
        return;
      }
      const int number = next++;
      client.call("execute", {number},
                  [&, number](const RPC::Outcome& outcome) {
                    ++ends[static_cast<size_t>(number)];
                    const std::string text = outcome_of([&] { return outcome.result(); });
                    if (outcome.ok()) {
                      EXPECT_EQ(text, std::to_string(number));
                      ++ok;
                    } else {
                      EXPECT_EQ(text.find("ConnectionLost: "), 0U) << text;
                      EXPECT_NE(number % 3, 0) << "had time to be repeated: " << text;
                      ++lost;
                    }
                    begin();
                  },
                  {20000ms, number % 3 == 0});
    };
    for (int n = 0; n < 16; ++n) begin();
    io.run();
    cuts = proxy.cuts();
  }
  server.end();
  EXPECT_EQ(ok + lost, CALLS);
  EXPECT_GT(cuts, 20);
  EXPECT_GT(lost, 20);
  for (int number = 0; number < CALLS; ++number) {
    EXPECT_EQ(ends[static_cast<size_t>(number)], 1) << number;
    EXPECT_TRUE(number % 3 == 0 || executed[static_cast<size_t>(number)] <= 1) << number;
  }
}

// Servers come and go while calls are made.
TEST(RpcExactlyOnce, CallsToServersThatStop) {
  NEEDS_UNIX_SOCKETS();
  const UnixAddress address;
  boost::asio::io_context io;
  RPC::AsyncClient client(io.get_executor(), address.text());
  std::atomic<bool> done{false};
  std::thread servers([&] {
    while (!done) {
      RunningServer server(test_methods(), RPC::ServerOptions(), address.text());
      std::this_thread::sleep_for(20ms);
    }
  });
  int ended = 0;
  int ok = 0;
  int next = 0;
  std::function<void()> begin = [&] {
    if (next == CALLS) return ended == CALLS ? client.close() : void();
    ++next;
    client.call("add", {1, 2},
                [&](const RPC::Outcome& outcome) {
                  ++ended;
                  if (outcome.ok()) ++ok;
                  begin();
                },
                {5000ms, next % 2 == 0});
  };
  for (int n = 0; n < 8; ++n) begin();
  io.run();
  done = true;
  servers.join();
  EXPECT_EQ(ended, CALLS);
  EXPECT_GT(ok, CALLS / 2);
}
