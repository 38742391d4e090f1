// A server and its methods.

#include "rpc/server.h"

#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "rpc/channel.h"
#include "rpc/client.h"
#include "rpc/errors.h"
#include "test/rpc/rpc_fixture.h"

using namespace VORN;
using namespace vorn_test;
using namespace std::chrono_literals;
using RPC::Answer;
using RPC::Client;
using RPC::Methods;
using RPC::ServerOptions;

namespace {

// Methods on worker threads, and on the server's own.
class RpcServer : public testing::TestWithParam<size_t> {
 protected:
  ServerOptions options() const {
    ServerOptions options;
    options.workers = GetParam();
    return options;
  }
};

INSTANTIATE_TEST_SUITE_P(Workers, RpcServer, testing::Values(8, 0));

// A channel on which these bytes arrive and no more. It says when it is destroyed.
class NotedChannel : public RPC::Channel {
 public:
  NotedChannel(boost::asio::any_io_executor executor, std::string bytes, std::atomic<bool>& destroyed)
      : executor_(std::move(executor)), bytes_(std::move(bytes)), destroyed_(destroyed) {}
  ~NotedChannel() override { destroyed_ = true; }

  void read_some(char* into, size_t size, Done done) override {
    const size_t read = bytes_.copy(into, size);
    bytes_.erase(0, read);
    if (read == 0) {
      reading_ = std::move(done);
    } else {
      boost::asio::post(executor_, [done = std::move(done), read] { done({}, read); });
    }
  }

  void write(std::string_view bytes, Done done) override {
    boost::asio::post(executor_, [done = std::move(done), size = bytes.size()] { done({}, size); });
  }

  void close() noexcept override {
    const Done done = std::exchange(reading_, nullptr);
    if (done) boost::asio::post(executor_, [done] { done(boost::asio::error::operation_aborted, 0); });
  }

  std::string peer() const override { return "nobody"; }

 private:
  boost::asio::any_io_executor executor_;
  std::string bytes_;
  Done reading_;
  std::atomic<bool>& destroyed_;
};

}  // namespace

TEST_P(RpcServer, AnswersOverTcpAndUnixSockets) {
  const UnixAddress unix_address;
  std::vector<std::string> addresses = {"tcp:127.0.0.1:0", "tcp:localhost:0"};
#ifndef _WIN32
  addresses.push_back(unix_address.text());
#endif
  for (const std::string& address : addresses) {
    RunningServer server(test_methods(), options(), address);
    Client client(server.address());
    EXPECT_EQ(client.call("add", {20, 22}), VObject(42)) << address;
    EXPECT_EQ(client.call("echo", {VObject()}), VObject()) << address;
    EXPECT_EQ(client.call("later", {"text"}), VObject("text")) << address;
    EXPECT_EQ(server.log(), "");
  }
}

TEST_P(RpcServer, AnswersFailures) {
  Methods methods = test_methods();
  methods.add("refuse", 0, [](VObjectVector&) -> VObject { throw RPC::Refused("overdrawn", "7 is too much"); });
  methods.add("number", 0, [](VObjectVector&) -> VObject { throw 7; });
  methods.add("reference", 0, [](VObjectVector&) {
    VObject value;
    value = boost::shared_ptr<VObject>(new VObject(1));
    return value;
  });
  methods.add("some", {1, 2}, [](VObjectVector& arguments) { return arguments.size(); });
  methods.add("any", {1, RPC::Arity::ANY}, [](VObjectVector& arguments) { return arguments.size(); });
  methods.add_later("refuse later", 0, [](VObjectVector&, Answer answer) { answer.error("mine", "later"); });
  methods.add_later("throw", 0, [](VObjectVector&, const Answer&) { throw std::runtime_error("with the answer"); });
  methods.add_later("answer and throw", 0, [](VObjectVector&, Answer answer) {
    answer.result(1);
    throw std::runtime_error("behind\n\x1b[31mthe answer");
  });
  RunningServer server(methods, options());
  Client client(server.address());
  const auto outcome = [&](const char* method, const VObjectVector& arguments) {
    return outcome_of([&] { return client.call(method, arguments); });
  };
  EXPECT_EQ(outcome("refuse", {}), "RemoteError: overdrawn: 7 is too much");
  EXPECT_EQ(outcome("fail", {}), "RemoteError: failed: the service failed");
  EXPECT_EQ(outcome("number", {}), "RemoteError: failed: the service failed");
  EXPECT_EQ(outcome("reference", {}), "RemoteError: failed: the result cannot be sent");
  EXPECT_EQ(outcome("fill", {1 << 20}), "RemoteError: too large: a frame of 1048584 bytes, 1048576 are allowed");
  EXPECT_EQ(outcome("drop", {}), "RemoteError: failed: the service failed");
  EXPECT_EQ(outcome("refuse later", {}), "RemoteError: mine: later");
  // A method that has its answer logs behind it, maybe while another worker runs the next call.
  EXPECT_EQ(outcome("throw", {}), "RemoteError: failed: the service failed");
  EXPECT_TRUE(eventually([&] { return server.logged("with the answer") == 1; }));
  EXPECT_EQ(outcome("answer and throw", {}), "1");
  EXPECT_TRUE(eventually([&] { return server.logged("answer and throw") == 1; }));
  EXPECT_EQ(outcome("some", {}), "RemoteError: bad arguments: some takes 1 to 2, not 0");
  EXPECT_EQ(outcome("some", {1, 2}), "2");
  EXPECT_EQ(outcome("some", {1, 2, 3}), "RemoteError: bad arguments: some takes 1 to 2, not 3");
  EXPECT_EQ(outcome("any", {}), "RemoteError: bad arguments: any takes 1 or more, not 0");
  EXPECT_EQ(outcome("any", {1, 2, 3}), "3");
  EXPECT_EQ(outcome("add", {1}), "RemoteError: bad arguments: add takes 2, not 1");
  EXPECT_EQ(outcome(("no\n" + std::string(100, 'x')).c_str(), {}),
            "RemoteError: no such method: no method \"no\\x0a" + std::string(37, 'x') + "\"");
  EXPECT_EQ(outcome("add", {20, 22}), "42");
  EXPECT_EQ(server.log(),
            "fail: as told\n"
            "number: an exception of no known type\n"
            "the result cannot be sent: VObject::serialize: serialization of DT_REF not yet supported\n"
            "throw: with the answer\n"
            "answer and throw: behind??[31mthe answer\n");
}

// Nothing of a failure is lost when nobody gets an answer.
TEST_P(RpcServer, LogsFailuresOfNotifications) {
  Methods methods = test_methods();
  methods.add("refuse", 0, [](VObjectVector&) -> VObject { throw RPC::Refused("mine", "no\nway"); });
  RunningServer server(methods, options());
  Client client(server.address());
  client.notify("refuse", {});
  client.notify("fail", {});
  client.notify("nothing\n", {});
  client.call("add", {1, 2});
  EXPECT_TRUE(eventually([&] { return server.logged("\n") == 3; })) << server.log();
  EXPECT_EQ(server.logged("refuse: no?way\n"), 1U);
  EXPECT_EQ(server.logged("fail: as told\n"), 1U);
  EXPECT_EQ(server.logged("nothing?: no method"), 1U);
}

TEST_P(RpcServer, RequestsOverlapAndAnswersComeInAnyOrder) {
  std::mutex lock;
  std::optional<Answer> first;
  Methods methods;
  methods.add_later("wait", 0, [&](VObjectVector&, Answer answer) {
    const std::lock_guard<std::mutex> hold(lock);
    first.emplace(std::move(answer));
  });
  methods.add_later("release", 0, [&](VObjectVector&, Answer answer) {
    answer.result("second");
    const std::lock_guard<std::mutex> hold(lock);
    if (first) first->result("first");
    first.reset();
  });
  RunningServer server(methods, options());
  const Peer peer(server.address());
  peer.send(request_frame(1, "wait", {}));
  EXPECT_FALSE(peer.readable(100ms));
  peer.send(request_frame(2, "release", {}));
  const std::vector<VObject> answers = peer.messages(2);
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(text_of(answers[0]), "[2, nil, \"second\"]");
  EXPECT_EQ(text_of(answers[1]), "[1, nil, \"first\"]");
}

// Of 32 bits, or of 64 bytes as text. What has another one is no request, and ends its connection.
TEST_P(RpcServer, TakesIdsOfBothLanguages) {
  RunningServer server(test_methods(), options());
  const Peer peer(server.address());
  for (const VObject& id :
       {VObject(INT32_MIN), VObject(0), VObject(INT32_MAX), VObject(""), VObject(std::string(64, 'i'))}) {
    peer.send(request_frame(id, "echo", {id}));
    const std::vector<VObject> answers = peer.messages(1);
    ASSERT_EQ(answers.size(), 1U) << text_of(id);
    EXPECT_EQ(answers[0], VObject(VObjectVector{id, VObject(), id}));
  }
  const std::vector<VObject> others = {VObject(int64_t{INT32_MIN} - 1), VObject(int64_t{INT32_MAX} + 1),
                                       VObject((int64_t{1} << 32) + 1), VObject(std::string(65, 'i'))};
  for (const VObject& id : others) {
    const Peer other(server.address());
    other.send(request_frame(id, "echo", {id}));
    EXPECT_EQ(other.receive(), "") << text_of(id);
  }
  EXPECT_EQ(server.logged("not a request; closing"), others.size());
}

// Ids are a connection's own: the same ones are in progress for three clients at once.
TEST_P(RpcServer, AnswersEachClientOnItsOwnConnection) {
  constexpr size_t CLIENTS = 3;
  constexpr size_t CALLS = 4;
  std::mutex lock;
  std::vector<std::pair<VObject, Answer>> kept;
  Methods methods;
  methods.add_later("keep", 1, [&](VObjectVector& arguments, Answer answer) {
    const std::lock_guard<std::mutex> hold(lock);
    kept.emplace_back(arguments[0], std::move(answer));
  });
  RunningServer server(methods, options());
  std::vector<Peer> peers;
  for (size_t peer = 0; peer < CLIENTS; ++peer) peers.emplace_back(server.address());
  for (size_t id = 0; id < CALLS; ++id) {
    for (size_t peer = 0; peer < CLIENTS; ++peer) {
      peers[peer].send(request_frame(id, "keep", {std::to_string(peer) + "." + std::to_string(id)}));
    }
  }
  ASSERT_TRUE(eventually([&] {
    const std::lock_guard<std::mutex> hold(lock);
    return kept.size() == CLIENTS * CALLS;
  }));
  for (; !kept.empty(); kept.pop_back()) kept.back().second.result(kept.back().first);
  for (size_t peer = 0; peer < CLIENTS; ++peer) {
    std::set<std::string> answers;
    for (const VObject& answer : peers[peer].messages(CALLS)) answers.insert(text_of(answer));
    std::set<std::string> wanted;
    for (size_t id = 0; id < CALLS; ++id) {
      const std::string number = std::to_string(id);
      wanted.insert("[" + number + ", nil, \"" + std::to_string(peer) + "." + number + "\"]");
    }
    EXPECT_EQ(answers, wanted) << peer;
    EXPECT_FALSE(peers[peer].readable(20ms)) << peer;
  }
}

TEST_P(RpcServer, CallsTheHookAroundEachCall) {
  ServerOptions with_hook = options();
  std::mutex lock;
  std::vector<std::string> calls;
  with_hook.around = [&](const std::string& name, const VObjectVector& arguments, const std::function<void()>& run) {
    if (name == "fill") throw RPC::Refused("forbidden", "not for you");
    if (name == "sleep") return;
    run();
    const std::lock_guard<std::mutex> hold(lock);
    calls.push_back(name + " " + std::to_string(arguments.size()));
  };
  RunningServer server(test_methods(), with_hook);
  Client client(server.address());
  EXPECT_EQ(client.call("add", {1, 2}), VObject(3));
  EXPECT_EQ(client.call("later", {1}), VObject(1));
  EXPECT_EQ(outcome_of([&] { return client.call("fail", {}); }), "RemoteError: failed: the service failed");
  EXPECT_EQ(outcome_of([&] { return client.call("fill", {1}); }), "RemoteError: forbidden: not for you");
  EXPECT_EQ(outcome_of([&] { return client.call("sleep", {1}); }), "RemoteError: failed: the service failed");
  EXPECT_TRUE(eventually([&] {
    const std::lock_guard<std::mutex> hold(lock);
    return calls == std::vector<std::string>{"add 2", "later 1"};
  }));
  EXPECT_EQ(server.logged("sleep: the method was not run"), 1U);
}

// An Answer may outlive its connection, and the server.
TEST(RpcAnswer, MayComeWhenNobodyIsLeft) {
  std::mutex lock;
  std::vector<Answer> kept;
  Methods methods;
  methods.add_later("keep", 0, [&](VObjectVector&, Answer answer) {
    const std::lock_guard<std::mutex> hold(lock);
    kept.push_back(std::move(answer));
  });
  const auto count = [&] {
    const std::lock_guard<std::mutex> hold(lock);
    return kept.size();
  };
  {
    RunningServer server(methods);
    Peer peer(server.address());
    peer.send(request_frame(1, "keep", {}) + request_frame(2, "keep", {}));
    EXPECT_TRUE(eventually([&] { return count() == 2; }));
    EXPECT_TRUE(kept[0].wanted());
    peer.reset();
    EXPECT_TRUE(eventually([&] { return !kept[0].wanted(); }));
    kept[0].result("for nobody");
    Client client(server.address());
    EXPECT_EQ(outcome_of([&] { return client.call("keep", {}, {100ms, false}); }), "TimedOut: no answer in time");
  }
  kept[1].result("for nobody");
  kept[2] = std::move(kept[1]);
}

// A channel of Boost.Asio must not outlive its io_context, as an Answer may.
TEST(RpcAnswer, KeepsNoChannel) {
  std::atomic<bool> begun{false};
  std::atomic<bool> destroyed{false};
  std::optional<Answer> kept;
  Methods methods;
  methods.add_later("keep", 0, [&](VObjectVector&, Answer answer) {
    kept.emplace(std::move(answer));
    begun = true;
  });
  ServerOptions options;
  options.stop_time = 0ms;
  {
    RunningServer server(methods, options);
    server.server().serve(std::make_unique<NotedChannel>(server.executor(), request_frame(1, "keep", {}), destroyed));
    EXPECT_TRUE(eventually([&] { return begun.load(); }));
    EXPECT_FALSE(destroyed);
  }
  EXPECT_TRUE(destroyed);
  kept->result("for nobody");
}

TEST(RpcServerAddress, IsChecked) {
  RunningServer server;
  const auto listen = [&](const std::string& address) { RPC::Server(server.executor(), address, Methods()); };
  for (const char* address : {"", "tcp:", "tcp:127.0.0.1", "tcp::80", "tcp:host:port", "tcp:host:65536",
                              "unix:", "http://host", "tcp:127.0.0.1:999999999999999999999"}) {
    EXPECT_THROW(listen(address), std::invalid_argument) << address;
    EXPECT_THROW(Client client(address), std::invalid_argument) << address;
  }
  EXPECT_THROW(listen("unix:/tmp/" + std::string(200, 'x')), std::invalid_argument);
#ifdef _WIN32
  EXPECT_THROW(listen("unix:/nowhere/at/all"), std::invalid_argument) << "no UNIX sockets";
#else
  EXPECT_THROW(listen("unix:/nowhere/at/all"), std::system_error);
#endif
  EXPECT_THROW(listen(server.address()), std::system_error) << "in use";
  ServerOptions options;
  options.max_length = ServerOptions::LEAST_LENGTH - 1;
  EXPECT_THROW(RPC::Server(server.executor(), "tcp:127.0.0.1:0", Methods(), options), std::invalid_argument);
  EXPECT_THROW(Methods().add("no body", 0, nullptr), std::invalid_argument);
  EXPECT_THROW(Methods().add_later("no body", 0, nullptr), std::invalid_argument);
}

// A killed server leaves its socket's file behind; a running one keeps it, and what is no socket stays.
TEST(RpcServerAddress, ReplacesAStaleSocket) {
  NEEDS_UNIX_SOCKETS();
  const UnixAddress address;
  for (int run = 0; run < 2; ++run) {
    RunningServer server(test_methods(), ServerOptions(), address.text());
    EXPECT_EQ(server.address(), address.text());
    EXPECT_THROW(RPC::Server(server.executor(), address.text(), Methods()), std::system_error);
    EXPECT_EQ(Client(address.text()).call("add", {1, 2}), VObject(3));
  }
}

TEST_P(RpcServer, StopAnswersWhatHasBegunAndRefusesTheRest) {
  std::atomic<int> begun{0};
  Methods methods = test_methods();
  methods.add("begin", 0, [&](VObjectVector&) {
    ++begun;
    std::this_thread::sleep_for(400ms);
    return VObject("done");
  });
  RunningServer server(methods, options());
  std::vector<Peer> peers;
  for (int n = 0; n < 3; ++n) {
    peers.emplace_back(server.address());
    std::string requests;
    for (int id = 0; id < 20; ++id) requests += request_frame(id, "begin", {});
    peers.back().send(requests);
  }
  EXPECT_TRUE(eventually([&] { return begun >= static_cast<int>(GetParam() > 0 ? GetParam() : 1); }));
  server.server().stop();
  const int begun_before = begun;
  server.end();
  EXPECT_EQ(begun, begun_before);
  int done = 0;
  int refused = 0;
  for (const Peer& peer : peers) {
    for (const VObject& answer : peer.messages(1000)) {
      const VObjectVector& parts = answer.getvec();
      if (parts[1].type() == DT_NIL) {
        ++done;
      } else {
        EXPECT_EQ(text_of(parts[1]), "[\"stopping\", \"the server is stopping\"]");
        ++refused;
      }
    }
  }
  EXPECT_EQ(done, begun);
  // Two clients fill the workers, one the executor: the others may not have been read.
  EXPECT_GE(refused, (GetParam() > 0 ? 40 : 20) - done);
  EXPECT_THROW(Peer peer(server.address()), std::runtime_error) << "still listening";
}

// What still runs behind stop_time loses its connection, and idle clients do not delay the end.
TEST(RpcServerStop, DoesNotWaitForEver) {
  ServerOptions options;
  options.stop_time = 300ms;
  std::vector<Answer> kept;
  Methods methods = test_methods();
  methods.add_later("keep", 0, [&](VObjectVector&, Answer answer) { kept.push_back(std::move(answer)); });
  RunningServer server(methods, options);
  const Peer waiting(server.address());
  waiting.send(request_frame(1, "keep", {}));
  const Peer idle(server.address());
  const Peer half(server.address());
  half.send(request_frame(1, "keep", {}).substr(0, 9));
  const Peer unread(server.address());
  for (int id = 0; id < 40; ++id) unread.send(request_frame(id, "fill", {1000000}));
  std::this_thread::sleep_for(100ms);
  const auto began = std::chrono::steady_clock::now();
  server.end();
  const auto took = std::chrono::steady_clock::now() - began;
  EXPECT_GE(took, 290ms);
  EXPECT_LT(took, 3s);
  EXPECT_TRUE(waiting.closed());
  EXPECT_TRUE(idle.closed());
  EXPECT_TRUE(half.closed());
  EXPECT_TRUE(unread.closed());
}

// Nobody waits for the answer to a notification: the log has each that was read and is not executed, whether it waits
// for a worker or is held back, and however long what has begun takes.
TEST_P(RpcServer, StopDropsNoNotificationSilently) {
  std::atomic<size_t> executed{0};
  Methods methods = test_methods();
  methods.add("note", 0, [&](VObjectVector&) { return ++executed; });
  ServerOptions with_time = options();
  if (with_time.workers > 0) with_time.workers = 1;
  with_time.max_in_progress = 3;
  with_time.stop_time = 100ms;
  std::string log;
  with_time.log = [&](RPC::LogLevel, const std::string& line) { log += line + "\n"; };
  std::string requests = request_frame(1, "sleep", {1200});
  for (int n = 0; n < 10; ++n) requests += request_frame(VObject(), "note", {});
  {
    boost::asio::io_context io{1};
    RPC::Server server(io.get_executor(), "tcp:127.0.0.1:0", methods, with_time);
    const Peer peer(server.address());
    peer.send(requests);
    boost::asio::steady_timer timer(io, 200ms);
    timer.async_wait([&](boost::system::error_code) { server.stop(); });
    io.run();
  }
  size_t dropped = 0;
  const std::string line = "note: dropped, the server is stopping\n";
  for (size_t at = 0; (at = log.find(line, at)) != std::string::npos; ++at) ++dropped;
  EXPECT_EQ(executed + dropped, 10U) << log;
  EXPECT_GE(dropped, GetParam() > 0 ? 10U : 1U);
}

// It is answered while all workers are busy, for as long as they are, and whatever else waits.
TEST(RpcServerInline, IsAnsweredWhileAllWorkersAreBusy) {
  std::atomic<std::thread::id> ran_by;
  Methods methods = test_methods();
  methods.add("ping", 0, [&](VObjectVector&) {
    ran_by = std::this_thread::get_id();
    return std::string("pong");
  });
  methods.add("refused", 0, [](VObjectVector&) -> VObject { throw RPC::Refused("mine", "text"); });
  ServerOptions options;
  options.workers = 2;
  options.max_in_progress_of_all = 2;
  options.inline_methods = {"ping", "refused"};
  int called_around = 0;
  options.around = [&](const std::string& name, const VObjectVector&, const std::function<void()>& run) {
    if (name == "ping") ++called_around;
    run();
  };
  RunningServer server(methods, options);
  std::vector<Peer> busy;
  for (int n = 0; n < 3; ++n) {  // the third has no place
    busy.emplace_back(server.address());
    busy.back().send(request_frame(1, "sleep", {1000}));
  }
  std::this_thread::sleep_for(200ms);
  Client client(server.address());
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(client.call("ping", {}), VObject("pong"));
  EXPECT_EQ(outcome_of([&] { return client.call("refused", {}); }), "RemoteError: mine: text");
  EXPECT_LT(std::chrono::steady_clock::now() - began, 500ms);
  EXPECT_EQ(called_around, 1);
  std::promise<std::thread::id> executor;
  boost::asio::post(server.executor(), [&] { executor.set_value(std::this_thread::get_id()); });
  EXPECT_EQ(ran_by, executor.get_future().get());
  EXPECT_EQ(client.call("add", {1, 2}), VObject(3));
  EXPECT_GT(std::chrono::steady_clock::now() - began, 500ms);
  for (const Peer& peer : busy) EXPECT_EQ(peer.messages(1).size(), 1U);
}

// Answers that come later would not be counted.
TEST(RpcServerInline, AreMethodsThatReturnTheirResult) {
  RunningServer server;
  for (const std::string name : {"later", "nothing"}) {
    ServerOptions options;
    options.inline_methods = {"echo", name};
    try {
      const RPC::Server refused(server.executor(), test_methods(), options);
      ADD_FAILURE() << name;
    } catch (const std::invalid_argument& e) {
      EXPECT_EQ(e.what(), "no method that returns its result, to run inline: " + name);
    }
  }
}

TEST(RpcServerStop, MayComeAtOnceAndTwice) {
  for (int run = 0; run < 50; ++run) {
    RunningServer server;
    if (run % 2 == 0) Peer(server.address()).send(request_frame(1, "add", {1, 2}));
    server.server().stop();
    server.end();
  }
}
