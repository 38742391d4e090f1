// What one client can take from a server and from the others: its share, its time, its place.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "rpc/client.h"
#include "rpc/server.h"
#include "test/rpc/rpc_fixture.h"

using namespace VORN;
using namespace vorn_test;
using namespace std::chrono_literals;
using RPC::Client;
using RPC::Methods;
using RPC::ServerOptions;

namespace {

using Clock = std::chrono::steady_clock;

std::string repeated(const std::string& text, int count) {
  std::string all;
  for (int n = 0; n < count; ++n) all += text;
  return all;
}

void expect_works(const RunningServer& server) {
  Client client(server.address());
  EXPECT_EQ(client.call("add", {1, 2}, {2000ms, false}), VObject(3));
}

// Counts how many run at once.
class Running {
 public:
  Methods methods() {
    Methods methods = test_methods();
    methods.add("count", 0, [this](VObjectVector&) {
      const int now = ++running_;
      int most = most_;
      while (most < now && !most_.compare_exchange_weak(most, now)) continue;
      std::this_thread::sleep_for(20ms);
      --running_;
      return VObject();
    });
    return methods;
  }
  int most() const { return most_; }

 private:
  std::atomic<int> running_{0};
  std::atomic<int> most_{0};
};

class RpcServerLimits : public testing::TestWithParam<size_t> {
 protected:
  ServerOptions options() const {
    ServerOptions options;
    options.workers = GetParam();
    return options;
  }
};

INSTANTIATE_TEST_SUITE_P(Workers, RpcServerLimits, testing::Values(8, 0));

}  // namespace

// More requests at once than a client's share, from a client that reads late: all are answered, once.
TEST_P(RpcServerLimits, HeldBackRequestsAreAnswered) {
  RunningServer server(test_methods(), options());
  const Peer peer(server.address());
  std::string requests;
  for (int id = 0; id < 2000; ++id) requests += request_frame(id, "echo", {id});
  EXPECT_TRUE(peer.send(requests));
  std::vector<bool> seen(2000);
  for (const VObject& answer : peer.messages(2000)) {
    const VObjectVector& parts = answer.getvec();
    ASSERT_EQ(parts[2], parts[0]);
    ASSERT_FALSE(seen[static_cast<size_t>(parts[0].to_i64())]);
    seen[static_cast<size_t>(parts[0].to_i64())] = true;
  }
  EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 2000);
  EXPECT_FALSE(peer.readable(50ms));
}

TEST(RpcServerLimit, TheShareOfAClient) {
  Running running;
  ServerOptions options;
  options.max_in_progress = 3;
  RunningServer server(running.methods(), options);
  const Peer peer(server.address());
  peer.send(repeated(request_frame(1, "count", {}), 12));
  EXPECT_EQ(peer.messages(12).size(), 12U);
  EXPECT_EQ(running.most(), 3);
}

TEST(RpcServerLimit, TheShareOfAllClients) {
  Running running;
  ServerOptions options;
  options.max_in_progress_of_all = 3;
  RunningServer server(running.methods(), options);
  std::vector<Peer> peers;
  for (int n = 0; n < 6; ++n) {
    peers.emplace_back(server.address());
    peers.back().send(repeated(request_frame(1, "count", {}), 6));
  }
  for (const Peer& peer : peers) EXPECT_EQ(peer.messages(6).size(), 6U);
  EXPECT_EQ(running.most(), 3);
  expect_works(server);
}

// Requests of clients that have gone count until they are answered: nobody gets more by connecting again.
TEST(RpcServerLimit, RequestsOfTheGoneCount) {
  std::mutex lock;
  bool keeps = true;
  std::vector<RPC::Answer> kept;
  Methods methods = test_methods();
  methods.add_later("keep", 0, [&](VObjectVector&, RPC::Answer answer) {
    const std::lock_guard<std::mutex> hold(lock);
    if (keeps) kept.push_back(std::move(answer));
  });
  ServerOptions options;
  options.max_in_progress_of_all = 5;
  options.workers = 0;
  RunningServer server(methods, options);
  for (int n = 0; n < 10; ++n) {
    Peer peer(server.address());
    peer.send(request_frame(1, "keep", {}) + request_frame(2, "keep", {}));
    std::this_thread::sleep_for(20ms);
    peer.reset();
  }
  {
    const std::lock_guard<std::mutex> hold(lock);
    EXPECT_EQ(kept.size(), 5U);
    keeps = false;
    kept.clear();
  }
  expect_works(server);
}

// A client that reads no answers has no more requests begun, however small its share of them is.
TEST_P(RpcServerLimits, AnswersThatAreNotRead) {
  NEEDS_UNIX_SOCKETS();
  std::atomic<int> begun{0};
  Methods methods;
  methods.add("fill", 0, [&](VObjectVector&) {
    ++begun;
    return std::string(50000, 'x');
  });
  const UnixAddress address;
  ServerOptions with_time = options();
  with_time.write_time = 20s;
  RunningServer server(methods, with_time, address.text());
  const Peer peer(server.address());
  peer.send(repeated(request_frame(1, "fill", {}), 100));
  std::this_thread::sleep_for(300ms);
  EXPECT_GE(begun, 5);
  EXPECT_LT(begun, 30);
  EXPECT_EQ(peer.messages(100).size(), 100U);
}

// Clients that take nothing lose their connection, and others are served meanwhile.
TEST_P(RpcServerLimits, ClientsThatReadNothing) {
  NEEDS_UNIX_SOCKETS();
  const UnixAddress address;
  ServerOptions with_time = options();
  with_time.write_time = 300ms;
  RunningServer server(test_methods(), with_time, address.text());
  const Peer greedy(server.address());
  greedy.send(repeated(request_frame(1, "fill", {500000}), 50));
  expect_works(server);
  EXPECT_TRUE(eventually([&] { return server.logged("the client takes nothing; closing") == 1; })) << server.log();
  EXPECT_TRUE(greedy.closed());
  expect_works(server);
}

// A client that reads a little now and then is never stalled, and still too slow.
TEST(RpcServerLimit, ClientsThatReadSlowly) {
  NEEDS_UNIX_SOCKETS();
  const UnixAddress address;
  ServerOptions options;
  options.write_time = 500ms;
  RunningServer server(test_methods(), options, address.text());
  const Peer slow(server.address());
  slow.send(repeated(request_frame(1, "fill", {1000000}), 8));
  const auto limit = Clock::now() + 5s;
  while (server.logged("the client takes nothing") == 0 && Clock::now() < limit) {
    slow.receive();
    std::this_thread::sleep_for(100ms);
  }
  EXPECT_LT(Clock::now(), limit);
}

TEST(RpcServerLimit, SilentClients) {
  ServerOptions options;
  options.idle_time = 300ms;
  RunningServer server(test_methods(), options);
  const auto began = Clock::now();
  const Peer silent(server.address());
  const Peer waiting(server.address());
  waiting.send(request_frame(1, "sleep", {1000}));
  EXPECT_TRUE(silent.closed());
  EXPECT_GE(Clock::now() - began, 290ms);
  EXPECT_LT(Clock::now() - began, 900ms);
  EXPECT_EQ(server.logged(": silent for 0.3 s; closing"), 1U);
  // Waiting for an answer does not count as silence; afterwards the time runs.
  EXPECT_EQ(waiting.messages(1).size(), 1U);
  EXPECT_GE(Clock::now() - began, 1000ms);
  EXPECT_TRUE(waiting.closed());
}

// A frame that has begun must end in time, whether its bytes stop or trickle in; whole frames may come slowly.
TEST(RpcServerLimit, SlowFrames) {
  ServerOptions options;
  options.frame_time = 600ms;
  RunningServer server(test_methods(), options);
  const std::string frame = request_frame(1, "echo", {std::string(60, 'x')});
  const Peer stopped(server.address());
  stopped.send(frame.substr(0, 9));
  const Peer trickling(server.address());
  std::thread slow([&] {
    const auto began = Clock::now();
    for (size_t at = 0; at < frame.size() && !trickling.readable(50ms); ++at) trickling.send(frame.substr(at, 1));
    EXPECT_TRUE(trickling.closed());
    EXPECT_GE(Clock::now() - began, 590ms);
  });
  // No chunk ends at a frame's end, and all together exceed the time for one.
  const Peer straddling(server.address());
  straddling.send(frame.substr(0, 3));
  for (int n = 0; n < 6; ++n) {
    std::this_thread::sleep_for(300ms);
    straddling.send(frame.substr(3) + frame.substr(0, 3));
  }
  EXPECT_EQ(straddling.messages(6).size(), 6U);
  slow.join();
  EXPECT_TRUE(stopped.closed());
  EXPECT_GE(server.logged("the rest of a frame did not come in 0.6 s; closing"), 2U);
}

// The server's own pause, when it reads nothing more, is not the client's: the rest of a frame may come behind it, or
// may have come before it.
TEST(RpcServerLimit, HeldBackClientsAreNotSlow) {
  ServerOptions options;
  options.frame_time = 1000ms;
  options.max_in_progress = 1;
  RunningServer server(test_methods(), options);
  const Peer behind(server.address());
  const Peer before(server.address());
  const std::string pause = request_frame(1, "sleep", {1300});
  const std::string request = request_frame(2, "add", {1, 2});
  behind.send(pause + request + request.substr(0, 5));
  before.send(pause + request.substr(0, 5));
  std::this_thread::sleep_for(500ms);
  before.send(request.substr(5));
  std::this_thread::sleep_for(1300ms);
  behind.send(request.substr(5));
  EXPECT_EQ(behind.messages(3).size(), 3U) << server.log();
  EXPECT_EQ(before.messages(2).size(), 2U) << server.log();
}

TEST(RpcServerLimit, Connections) {
  ServerOptions options;
  options.max_connections = 3;
  RunningServer server(test_methods(), options);
  std::vector<Peer> peers;
  for (int n = 0; n < 3; ++n) {
    peers.emplace_back(server.address());
    peers.back().send(request_frame(1, "add", {1, 2}));
    EXPECT_EQ(peers.back().messages(1).size(), 1U);
  }
  EXPECT_TRUE(Peer(server.address()).closed());
  EXPECT_EQ(server.logged("too many connections; closing the newest"), 1U);
  peers.pop_back();
  EXPECT_TRUE(eventually([&] {
    const Peer next(server.address());
    next.send(request_frame(1, "add", {1, 2}));
    return next.messages(1).size() == 1;
  }));
}

TEST(RpcServerLimit, LengthAndDepth) {
  ServerOptions options;
  options.max_length = 600;
  options.max_depth = 5;
  RunningServer server(test_methods(), options);
  const auto answers = [&](const std::string& bytes) {
    const Peer peer(server.address());
    peer.send(bytes);
    return peer.messages(1).size();
  };
  EXPECT_EQ(answers(request_frame(1, "echo", {std::string(500, 'x')})), 1U);
  EXPECT_EQ(answers(request_frame(1, "echo", {std::string(600, 'x')})), 0U);
  EXPECT_EQ(server.logged("bytes, 600 are accepted (at byte 0 of the stream); closing"), 1U);
  EXPECT_EQ(answers(std::string("\xA5\x01\0\0\x7F\xFF\xFF\xFF", 8)), 0U);
  const VObject two(VObjectVector{VObject(VObjectVector{1})});
  EXPECT_EQ(answers(request_frame(1, "echo", {two.getvec()[0].getvec()[0]})), 1U);
  EXPECT_EQ(answers(request_frame(1, "echo", {two})), 1U);
  EXPECT_EQ(answers(request_frame(1, "echo", {VObject(VObjectVector{two})})), 0U);
  EXPECT_EQ(server.logged("closing"), 3U) << server.log();
  // The longest errors fit.
  EXPECT_EQ(answers(request_frame(std::string(64, 'i'), "fill", {10000})), 1U);
}

// Symbols are not interned: a client could fill the memory.
TEST(RpcServerLimit, Symbols) {
  RunningServer server;
  const std::string name = "a name that nobody has interned";
  VObject symbol(name);
  const Peer peer(server.address());
  const std::string bytes = std::string(
                                "\x0A\x81\x07\x04"
                                "echo\x0A\x06",
                                10) +
                            static_cast<char>(name.size()) + name + "\x0B\x0B";
  peer.send(frame_around(bytes));
  const std::vector<VObject> answers = peer.messages(1);
  ASSERT_EQ(answers.size(), 1U) << server.log();
  EXPECT_EQ(answers[0].getvec()[2].type(), DT_STR);
}

// Requests of one client may not all come before those of others.
TEST_P(RpcServerLimits, ClientsTakeTurns) {
  std::atomic<int> executed{0};
  Methods methods = test_methods();
  methods.add("work", 0, [&](VObjectVector&) {
    std::this_thread::sleep_for(2ms);
    ++executed;
    return VObject();
  });
  RunningServer server(methods, options());
  const Peer greedy(server.address());
  greedy.send(repeated(request_frame(1, "work", {}), 4000));
  std::this_thread::sleep_for(50ms);
  Client client(server.address());
  EXPECT_EQ(client.call("add", {1, 2}), VObject(3));
  EXPECT_LT(executed, 3900) << "all were before it, but those that are being executed";
}

// Requests of a client that has gone are skipped where they wait for a worker.
TEST(RpcServerLimit, RequestsOfTheGoneAreSkipped) {
  std::atomic<int> executed{0};
  Methods methods = test_methods();
  methods.add("execute", 0, [&](VObjectVector&) { return ++executed; });
  ServerOptions options;
  options.workers = 1;
  options.max_in_progress = 8;
  RunningServer server(methods, options);
  const Peer busy(server.address());
  busy.send(request_frame(1, "sleep", {2000}));
  std::this_thread::sleep_for(50ms);
  Peer gone(server.address());
  gone.send(repeated(request_frame(1, "execute", {}), 5));
  std::this_thread::sleep_for(50ms);
  gone.close_sending();
  EXPECT_TRUE(gone.closed()) << "the end of its sending takes its requests back";
  EXPECT_EQ(busy.messages(1).size(), 1U);
  expect_works(server);
  EXPECT_EQ(executed, 0);
}

// Cut at every byte, by an orderly end and by a reset; the server goes on, and holds nothing of them.
TEST_P(RpcServerLimits, ConversationsCutAtEveryByte) {
  RunningServer server(test_methods(), options());
  const std::string conversation = request_frame(1, "add", {20, 22}) + request_frame("two", "echo", {"text"}) +
                                   request_frame(VObject(), "echo", {1}) + request_frame(3, "fill", {100});
  for (size_t size = 0; size <= conversation.size(); ++size) {
    for (const int way : {0, 1, 2}) {
      Peer peer(server.address());
      EXPECT_TRUE(peer.send(conversation.substr(0, size)));
      if (way == 0) peer.close();
      if (way == 1) peer.reset();
      if (way == 2) {
        peer.close_sending();
        EXPECT_TRUE(peer.closed());
      }
    }
  }
  expect_works(server);
  EXPECT_EQ(server.logged("closing"), 0U) << server.log();
}

// Noise, damaged requests and frames of noise each end in answers or the end of the connection.
TEST_P(RpcServerLimits, Garbage) {
  RunningServer server(test_methods(), options());
  std::mt19937 random(1);  // the same in every run
  const std::string whole = request_frame("id", "add", {20, 22});
  for (int number = 0; number < 400; ++number) {
    std::string bytes(1 + random() % 200, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    if (number % 3 == 1) {
      bytes = whole;
      bytes[random() % bytes.size()] = static_cast<char>(random());
    } else if (number % 3 == 2) {
      bytes = frame_around(bytes);
    }
    const Peer peer(server.address());
    peer.send(bytes);
    peer.close_sending();
    EXPECT_TRUE(peer.closed()) << number;
  }
  expect_works(server);
}
