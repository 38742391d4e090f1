// The client that waits and the one that does not, against servers of the library and against sockets.

#include "rpc/client.h"

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "rpc/asio_channel.h"
#include "rpc/async_client.h"
#include "rpc/detail/envelope.h"
#include "rpc/errors.h"
#include "stream/stream_encoder.h"
#include "test/rpc/rpc_fixture.h"

using namespace VORN;
using namespace vorn_test;
using namespace std::chrono_literals;
using RPC::AsyncClient;
using RPC::CallOptions;
using RPC::Client;
using RPC::ClientOptions;
using RPC::Outcome;

namespace {

using Clock = std::chrono::steady_clock;

ClientOptions with_timeout(std::chrono::milliseconds timeout) {
  ClientOptions options;
  options.calls.timeout = timeout;
  return options;
}

std::string answer_frame(const VObject& id, const VObject& result) {
  return frame_of(VObject(VObjectVector{id, VObject(), result}));
}

std::string refusal_frame(const VObject& id) {
  return frame_of(VObject(VObjectVector{id, VObject(VObjectVector{"stopping", "the end"}), VObject()}));
}

// What a call with id 1 ends with when these bytes are its answer, and whether the connection can still be used.
std::string outcome_with(const std::string& bytes, bool leaves = false) {
  const Listener listener;
  std::thread peer([&] {
    Peer connection = listener.accept();
    connection.receive();
    connection.send(bytes);
    if (leaves) return;
    connection.closed();
  });
  std::string outcome;
  {
    Client client(listener.address(), with_timeout(200ms));
    outcome = outcome_of([&] { return client.call("now", {}); });
  }
  peer.join();
  return outcome;
}

// Runs the action in as many threads at once, each with its number.
void in_threads(int count, const std::function<void(int)>& action) {
  std::vector<std::thread> threads;
  std::atomic<int> busy{count};
  for (int thread = 0; thread < count; ++thread) {
    threads.emplace_back([&, thread] {
      action(thread);
      --busy;
#ifdef _WIN32
      // What a thread reads is lost in Wine if it arrives while that thread ends: docs/operations/platforms.md.
      while (busy > 0) std::this_thread::sleep_for(1ms);
#endif
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

TEST(RpcClient, CallsOverlapFromManyThreads) {
  RunningServer server;
  Client client(server.address());
  std::atomic<int> right{0};
  in_threads(8, [&](int thread) {
    for (int n = 0; n < 200; ++n) {
      if (client.call(n % 2 == 0 ? "add" : "echo", n % 2 == 0 ? VObjectVector{thread, n} : VObjectVector{thread + n}) ==
          VObject(thread + n)) {
        ++right;
      }
    }
  });
  EXPECT_EQ(right, 8 * 200);

  const auto began = Clock::now();
  in_threads(3, [&](int) { client.call("sleep", {300}); });
  EXPECT_LT(Clock::now() - began, 800ms);
}

// A thread whose call ends lets another one read: the one that waits longest is not forgotten.
TEST(RpcClient, TheNextThreadReads) {
  RunningServer server;
  Client client(server.address());
  for (int run = 0; run < 20; ++run) {
    in_threads(3, [&](int thread) {
      const int time = std::array{30, 40, 5}.at(static_cast<size_t>(thread));
      EXPECT_EQ(client.call("sleep", {time}), VObject(time));
    });
  }
}

TEST(RpcClient, TimesOutAndDropsTheLateAnswer) {
  RunningServer server;
  Client client(server.address());
  const auto began = Clock::now();
  EXPECT_EQ(outcome_of([&] { return client.call("sleep", {300}, {50ms, false}); }), "TimedOut: no answer in time");
  EXPECT_LT(Clock::now() - began, 250ms);
  EXPECT_EQ(client.call("echo", {"still here"}), VObject("still here"));
  client.call("sleep", {350});
  EXPECT_EQ(client.call("echo", {"still here"}), VObject("still here"));
  // The timer looks at the nearest deadline, whatever comes behind.
  std::thread patient([&] { client.call("sleep", {100}, {5000ms, false}); });
  EXPECT_EQ(outcome_of([&] { return client.call("sleep", {400}, {50ms, false}); }), "TimedOut: no answer in time");
  patient.join();
  // Behind it at the next one, though no other call begins.
  std::thread next([&] {
    EXPECT_EQ(outcome_of([&] { return client.call("sleep", {600}, {150ms, false}); }), "TimedOut: no answer in time");
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(outcome_of([&] { return client.call("sleep", {600}, {50ms, false}); }), "TimedOut: no answer in time");
  next.join();
}

TEST(RpcClient, RefusesWhatCannotBeSent) {
  RunningServer server;
  Client client(server.address());
  EXPECT_EQ(outcome_of([&] { return client.call("echo", {std::string(1 << 20, 'x')}); }),
            "MessageTooLarge: a frame of 1048591 bytes, 1048576 are allowed");
  VObject reference;
  reference = boost::shared_ptr<VObject>(new VObject(1));
  EXPECT_EQ(outcome_of([&] { return client.call("echo", {reference}); }),
            "exception: VObject::serialize: serialization of DT_REF not yet supported");
  EXPECT_EQ(outcome_of([&] {
              client.notify("echo", {reference});
              return VObject();
            }),
            "exception: VObject::serialize: serialization of DT_REF not yet supported");
  EXPECT_EQ(client.call("fill", {(1 << 20) - 100}).getstr().size(), (1U << 20) - 100);
}

// A client that makes 40,000 calls a second gets there in 15 hours.
TEST(RpcClient, IdsBeginAgainBehindTheLargest) {
  const std::set<int32_t> none;
  EXPECT_EQ(RPC::next_id(0, none), 1);
  EXPECT_EQ(RPC::next_id(INT32_MAX - 1, none), INT32_MAX);
  EXPECT_EQ(RPC::next_id(INT32_MAX, none), 1);
  const std::set<int32_t> waiting = {1, 2, 4, INT32_MAX};
  EXPECT_EQ(RPC::next_id(0, waiting), 3);
  EXPECT_EQ(RPC::next_id(3, waiting), 5);
  EXPECT_EQ(RPC::next_id(INT32_MAX - 1, waiting), 3);
}

TEST(RpcClient, NotifiesWithoutAnAnswer) {
  std::atomic<int> notes{0};
  RPC::Methods methods;
  methods.add("note", 1, [&](VObjectVector&) {
    ++notes;
    return VObject();
  });
  RunningServer server(methods);
  Client client(server.address());
  for (int n = 0; n < 10; ++n) client.notify("note", {n});
  EXPECT_EQ(outcome_of([&] { return client.call("note", {1}); }), "nil");
  EXPECT_TRUE(eventually([&] { return notes == 11; }));
}

TEST(RpcClient, CloseEndsCallsInFlightAndLaterOnes) {
  RunningServer server;
  Client client(server.address());
  std::thread closer([&] {
    std::this_thread::sleep_for(100ms);
    client.close();
  });
  const auto began = Clock::now();
  EXPECT_EQ(outcome_of([&] { return client.call("sleep", {1000}); }), "ConnectionLost: the client is closed");
  EXPECT_LT(Clock::now() - began, 900ms);
  closer.join();
  EXPECT_EQ(outcome_of([&] { return client.call("add", {1, 2}); }), "ConnectionLost: the client is closed");
  client.close();
}

TEST(RpcClient, CannotConnect) {
  std::string address;
  {
    const Listener gone;
    address = gone.address();
  }
  Client client(address);
  const auto began = Clock::now();
  EXPECT_EQ(outcome_of([&] {
              return client.call("add", {1, 2}, {300ms, false});
            }),
            "ConnectionLost: cannot connect: Connection refused");
  EXPECT_GE(Clock::now() - began, 75ms) << "tries again";
  EXPECT_LT(Clock::now() - began, 400ms);
  Client nowhere("tcp:name.invalid:1");
  EXPECT_EQ(outcome_of([&] {
              return nowhere.call("add", {1, 2}, {100ms, false});
            }).find("ConnectionLost: cannot connect: "),
            0U);
}

// Calls wait for a server that comes later.
TEST(RpcClient, ConnectsWhenTheServerComes) {
  NEEDS_UNIX_SOCKETS();
  const UnixAddress address;
  Client client(address.text());
  std::string outcome;
  std::thread caller([&] { outcome = outcome_of([&] { return client.call("add", {1, 2}); }); });
  std::this_thread::sleep_for(300ms);
  RunningServer server(test_methods(), RPC::ServerOptions(), address.text());
  caller.join();
  EXPECT_EQ(outcome, "3");
}

// That the server has gone while nobody called is found before a request is lost.
TEST(RpcClient, ConnectsAgain) {
  NEEDS_UNIX_SOCKETS();
  const UnixAddress address;
  Client client(address.text());
  for (int run = 0; run < 3; ++run) {
    RunningServer server(test_methods(), RPC::ServerOptions(), address.text());
    EXPECT_EQ(outcome_of([&] { return client.call("add", {1, 2}); }), "3") << run;
  }
}

// A call is repeated only if its caller says so.
TEST(RpcClient, RepeatsOnlyWhatMayBe) {
  const Listener listener;
  std::atomic<int> requests{0};
  std::thread peer([&] {
    for (int n = 0; n < 4; ++n) {
      const Peer connection = listener.accept();
      const std::string request = connection.receive();
      if (!request.empty()) ++requests;
      if (n == 3) {
        STREAM::StreamDecoder().feed(request, [&](STREAM::StreamFrame& frame) {
          connection.send(answer_frame(frame.messages.at(0).getvec()[0], "at last"));
        });
        connection.closed();
      }
    }
  });
  {
    Client client(listener.address());
    EXPECT_EQ(outcome_of([&] { return client.call("x", {}); }), "ConnectionLost: the server closed the connection");
    EXPECT_EQ(requests, 1);
    EXPECT_EQ(outcome_of([&] { return client.call("x", {}, {5000ms, true}); }), "\"at last\"");
  }
  peer.join();
  EXPECT_EQ(requests, 4);
}

// What a stopping server refuses is called again on a new connection, whoever may repeat; calls in flight stay where
// they are, and with the last of them the old connection ends.
TEST(RpcClient, CallsAgainWhatAStoppingServerRefuses) {
  const Listener listener;
  const auto id_of = [](const VObject& request) { return request.getvec()[0]; };
  std::atomic<bool> old_connection_closed{false};
  std::thread peer([&] {
    const Peer old = listener.accept();
    const VObject in_flight = old.messages(1).at(0);
    const VObject refused = old.messages(1).at(0);
    EXPECT_EQ(text_of(refused.getvec()[1]), "\"second\"");
    old.send(refusal_frame(id_of(refused)));
    const Peer next = listener.accept();
    for (int n = 0; n < 2; ++n) {
      for (const VObject& request : next.messages(1)) next.send(answer_frame(id_of(request), request.getvec()[1]));
    }
    old.send(answer_frame(id_of(in_flight), "from the old one"));
    old_connection_closed = old.closed();
    next.closed();
  });
  {
    Client client(listener.address());
    std::thread first([&] { EXPECT_EQ(outcome_of([&] { return client.call("first", {}); }), "\"from the old one\""); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(outcome_of([&] { return client.call("second", {}); }), "\"second\"");
    EXPECT_EQ(outcome_of([&] { return client.call("third", {}); }), "\"third\"");
    first.join();
    EXPECT_TRUE(eventually([&] { return old_connection_closed.load(); }));
  }
  peer.join();
}

// A server that refuses a call has answered it: what else it sends with that id is not the answer of the next one.
TEST(RpcClient, TakesNoSecondAnswerFromAServerThatRefused) {
  const Listener listener;
  const auto id_of = [](const VObject& request) { return request.getvec()[0]; };
  std::thread peer([&] {
    const Peer old = listener.accept();
    const VObject in_flight = old.messages(1).at(0);
    const VObject refused = old.messages(1).at(0);
    old.send(refusal_frame(id_of(refused)));
    const Peer next = listener.accept();
    const VObject again = next.messages(1).at(0);
    EXPECT_EQ(id_of(again), id_of(refused));
    old.send(answer_frame(id_of(refused), "a second answer") + answer_frame(id_of(in_flight), "the first call's"));
    std::this_thread::sleep_for(100ms);
    next.send(answer_frame(id_of(again), "the second call's"));
    next.closed();
  });
  {
    Client client(listener.address());
    std::thread first([&] { EXPECT_EQ(outcome_of([&] { return client.call("first", {}); }), "\"the first call's\""); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(outcome_of([&] { return client.call("second", {}); }), "\"the second call's\"");
    first.join();
  }
  peer.join();
}

// The old connection is lost with what is in flight there, and with nothing else.
TEST(RpcClient, LosesAStoppingServerWithItsCalls) {
  const Listener listener;
  std::thread peer([&] {
    Peer old = listener.accept();
    old.messages(1);
    const VObject refused = old.messages(1).at(0);
    old.send(refusal_frame(refused.getvec()[0]));
    const Peer next = listener.accept();
    const VObject request = next.messages(1).at(0);
    old.close();
    std::this_thread::sleep_for(100ms);
    next.send(answer_frame(request.getvec()[0], 2));
    next.closed();
  });
  {
    Client client(listener.address());
    std::thread first([&] {
      EXPECT_EQ(outcome_of([&] { return client.call("first", {}); }),
                "ConnectionLost: the server closed the connection");
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(outcome_of([&] { return client.call("second", {}); }), "2");
    first.join();
  }
  peer.join();
}

TEST(RpcClient, EveryServerRefuses) {
  const Listener listener;
  std::atomic<int> connections{0};
  std::atomic<bool> done{false};
  std::thread peer([&] {
    while (!done) {
      if (!listener.waiting(20ms)) continue;
      const Peer connection = listener.accept();
      ++connections;
      for (const VObject& request : connection.messages(1)) {
        connection.send(refusal_frame(request.getvec()[0]));
      }
      connection.closed();
    }
  });
  {
    Client client(listener.address(), with_timeout(1200ms));
    EXPECT_EQ(outcome_of([&] { return client.call("x", {}); }), "RemoteError: stopping: the end");
  }
  done = true;
  peer.join();
  EXPECT_GE(connections, 4);
  EXPECT_LE(connections, 9);
}

// Between attempts it waits, longer and longer.
TEST(RpcClient, PausesBetweenAttempts) {
  const Listener listener;
  std::atomic<bool> done{false};
  int connections = 0;
  std::thread peer([&] {
    while (!done) {
      if (!listener.waiting(20ms)) continue;
      const Peer connection = listener.accept();
      connection.receive();
      ++connections;
    }
  });
  {
    Client client(listener.address());
    EXPECT_EQ(outcome_of([&] {
                return client.call("x", {}, {1200ms, true});
              }),
              "ConnectionLost: the server closed the connection");
  }
  done = true;
  peer.join();
  EXPECT_GE(connections, 4);
  EXPECT_LE(connections, 9);
}

TEST(RpcClient, ChecksAnswers) {
  const std::string mine = answer_frame(1, "mine");
  EXPECT_EQ(outcome_with(mine), "\"mine\"");
  EXPECT_EQ(outcome_with(frame_of(VObject(
                VObjectVector{1, VObject(VObjectVector{std::string("code"), std::string("text")}), VObject()}))),
            "RemoteError: code: text");
  EXPECT_EQ(outcome_with(mine + answer_frame(1, "second")), "\"mine\"");
  // Of nobody: other ids, ids of other kinds, and the least and greatest.
  std::string others;
  for (const VObject& id : {VObject(2), VObject(0), VObject(-1), VObject(), VObject("1"), VObject(1.0), VObject(true),
                            VObject(INT64_MAX), VObject(INT64_MIN), VObject((int64_t{1} << 32) + 1)}) {
    others += answer_frame(id, "other");
  }
  EXPECT_EQ(outcome_with(others + mine), "\"mine\"");
  const VObject text("text");
  for (const VObject& message :
       std::vector<VObject>{text, VObject::new_hash(), VObject::new_vector(), VObject(VObjectVector{1, VObject()}),
                            VObject(VObjectVector{1, VObject(), 2, 3}), VObject(VObjectVector{1, text, VObject()}),
                            VObject(VObjectVector{1, VObject::new_vector(), VObject()}),
                            VObject(VObjectVector{1, VObject(VObjectVector{text}), VObject()}),
                            VObject(VObjectVector{1, VObject(VObjectVector{text, 2}), VObject()}),
                            VObject(VObjectVector{1, VObject(VObjectVector{1, text}), VObject()}),
                            VObject(VObjectVector{1, VObject(VObjectVector{text, text, text}), VObject()})}) {
    EXPECT_EQ(outcome_with(frame_of(message)), "ConnectionLost: not an answer") << text_of(message);
  }
  // Frames of none and of several.
  EXPECT_EQ(outcome_with(frame_around("") + frame_around(answer_frame(2, 1).substr(8) + mine.substr(8))), "\"mine\"");
}

TEST(RpcClient, RefusesWhatIsNoFrame) {
  const std::string lost = "ConnectionLost: ";
  const std::string place = " (at byte 0 of the stream)";
  EXPECT_EQ(outcome_with("HTTP/1.1 400\r\n"), lost + "bytes that belong to no frame" + place);
  EXPECT_EQ(outcome_with(std::string("\xA5\x01\0\0\0\x10\0\x01", 8)),
            lost + "a frame announces 1048577 bytes, 1048576 are accepted" + place);
  EXPECT_EQ(outcome_with("", true), lost + "the server closed the connection");
  EXPECT_EQ(outcome_with(std::string("\xA5\x01\0", 3), true), lost + "the server closed the connection");
  EXPECT_EQ(outcome_with(""), "TimedOut: no answer in time");
  EXPECT_EQ(outcome_with(std::string("\xA5\x01\0", 3)), "TimedOut: no answer in time");
}

// The answer may be cut anywhere: in each case there is one outcome.
TEST(RpcClient, AnswersCutAtEveryByte) {
  const std::string answer = answer_frame(1, "mine");
  for (size_t size = 0; size < answer.size(); ++size) {
    EXPECT_EQ(outcome_with(answer.substr(0, size), true), "ConnectionLost: the server closed the connection") << size;
  }
  EXPECT_EQ(outcome_with(answer, true), "\"mine\"");
}

// A server that reads nothing: behind the deadline a part of a frame may have been sent, and nothing can follow.
TEST(RpcClient, LosesAServerThatTakesNothing) {
  const Listener listener;
  std::atomic<bool> done{false};
  std::thread peer([&] {
    const Peer connection = listener.accept();
    while (!done) std::this_thread::sleep_for(5ms);
    listener.accept();
  });
  {
    ClientOptions options = with_timeout(200ms);
    options.max_length = 1 << 24;
    Client client(listener.address(), options);
    EXPECT_EQ(outcome_of([&] { return client.call("x", {std::string(12 << 20, 'x')}); }),
              "ConnectionLost: sending failed: the server takes nothing");
    done = true;
    EXPECT_EQ(outcome_of([&] { return client.call("x", {}); }).find("ConnectionLost: "), 0U);
  }
  peer.join();
}

TEST(RpcAsyncClient, CallsOnTheUsersContext) {
  RPC::ServerOptions options;
  options.workers = 1;  // answers come in order
  RunningServer server(test_methods(), options);
  boost::asio::io_context io;
  AsyncClient client(io.get_executor(), server.address());
  std::vector<std::string> outcomes;
  bool inside = true;
  for (int n = 0; n < 3; ++n) {
    client.call("add", {n, 1}, [&](const Outcome& outcome) {
      EXPECT_FALSE(inside);
      outcomes.push_back(outcome_of([&] { return outcome.result(); }));
      if (outcomes.size() < 3) return;
      // From a handler, too.
      client.notify("add", {1, 2}, [&](const Outcome& notified) {
        EXPECT_TRUE(notified.ok());
        client.call("fail", {}, [&](const Outcome& failed) {
          EXPECT_FALSE(failed.ok());
          outcomes.push_back(outcome_of([&] { return failed.result(); }));
          client.close();
        });
      });
    });
  }
  inside = false;
  io.run();  // ends, since nothing of the client waits
  EXPECT_EQ(outcomes, (std::vector<std::string>{"1", "2", "3", "RemoteError: failed: the service failed"}));
}

// Not with what was sent before it.
TEST(RpcAsyncClient, NotifiesUntilItIsWritten) {
  constexpr size_t FIRST = 12 << 20;
  constexpr size_t MORE_THAN_BUFFERS = 60 << 20;
  const Listener listener;
  std::atomic<bool> second_waits{false};
  std::atomic<bool> done{false};
  std::thread peer([&] {
    const Peer connection = listener.accept();
    while (!second_waits) std::this_thread::sleep_for(1ms);
    size_t read = 0;
    while (read < FIRST) {
      const size_t size = connection.receive().size();
      if (size == 0) break;
      read += size;
    }
    EXPECT_GE(read, FIRST);
    while (!done) std::this_thread::sleep_for(1ms);
  });
  boost::asio::io_context io;
  ClientOptions options;
  options.max_length = 1 << 26;
  AsyncClient client(io.get_executor(), listener.address(), options);
  std::vector<std::string> outcomes;
  const auto notify = [&](size_t size, std::chrono::milliseconds timeout) {
    client.notify("x", {std::string(size, 'x')},
                  [&](const Outcome& outcome) { outcomes.push_back(outcome_of([&] { return outcome.result(); })); },
                  {timeout, false});
  };
  notify(FIRST, 20s);
  io.run_for(100ms);
  notify(MORE_THAN_BUFFERS, 2500ms);
  io.run_for(100ms);
  EXPECT_TRUE(outcomes.empty());
  second_waits = true;
  io.run_for(10s);  // ends with the connection
  EXPECT_EQ(outcomes, (std::vector<std::string>{"nil", "ConnectionLost: sending failed: the server takes nothing"}));
  done = true;
  peer.join();
}

TEST(RpcAsyncClient, EndsItsCallsWithItself) {
  RunningServer server;
  boost::asio::io_context io;
  std::vector<std::string> outcomes;
  {
    AsyncClient client(io.get_executor(), server.address());
    for (int n = 0; n < 3; ++n) {
      client.call("sleep", {1000},
                  [&](const Outcome& outcome) { outcomes.push_back(outcome_of([&] { return outcome.result(); })); });
    }
    client.call("add", {1, 2}, nullptr);
    io.run_for(50ms);
    EXPECT_TRUE(outcomes.empty());
  }
  const auto began = Clock::now();
  io.restart();
  io.run();
  EXPECT_LT(Clock::now() - began, 500ms);
  EXPECT_EQ(outcomes, std::vector<std::string>(3, "ConnectionLost: the client is closed"));
}

// The context may end before the calls do: then nothing is called, and nothing leaks.
TEST(RpcAsyncClient, LeavesNothingInAContextThatEnds) {
  RunningServer server;
  int called = 0;
  {
    boost::asio::io_context io;
    AsyncClient client(io.get_executor(), server.address());
    client.call("sleep", {50}, [&](const Outcome&) { ++called; });
    io.run_for(20ms);
    client.call("sleep", {50}, [&](const Outcome&) { ++called; });
  }
  EXPECT_EQ(called, 0);
}

// What a handler throws comes out of the context's run(), and the other calls go on.
TEST(RpcAsyncClient, LetsHandlersThrow) {
  RunningServer server;
  boost::asio::io_context io;
  AsyncClient client(io.get_executor(), server.address());
  int called = 0;
  client.call("add", {1, 2}, [](const Outcome&) { throw std::runtime_error("mine"); });
  client.call("add", {1, 2}, [&](const Outcome&) {
    ++called;
    client.close();
  });
  EXPECT_THROW(io.run(), std::runtime_error);
  io.run();
  EXPECT_EQ(called, 1);
}

// A pair of sockets: the server is given one end, the client connects by the other.
TEST(RpcChannels, CarryWhateverIsGiven) {
  RunningServer server(test_methods(), RPC::ServerOptions(), "");
  EXPECT_EQ(server.address(), "");
  using boost::asio::ip::tcp;
  int connections = 0;
  Client client([&](const boost::asio::any_io_executor& executor) {
    return [&, executor](Clock::time_point, const RPC::Connected& connected) {
      if (++connections == 1) return connected(boost::asio::error::host_unreachable, nullptr);
      tcp::acceptor acceptor(executor, {boost::asio::ip::address_v4::loopback(), 0});
      tcp::socket here(executor);
      here.connect(acceptor.local_endpoint());
      tcp::socket there = acceptor.accept(server.executor());
      server.server().serve(RPC::make_channel(server.executor(), std::move(there), "a pair"));
      connected({}, RPC::make_channel(executor, std::move(here), "a pair"));
    };
  });
  EXPECT_EQ(client.call("add", {1, 2}), VObject(3));
  EXPECT_EQ(client.call("later", {1}), VObject(1));
  EXPECT_EQ(connections, 2);
}
