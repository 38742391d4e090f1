/// Whole calls over a UNIX socket: those of rpc/, compared with a bare loop that sends the same messages. A client's
/// next call begins when the last is answered; the server has a thread of its own.
#include <benchmark/benchmark.h>

#include <unistd.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "rpc/async_client.h"
#include "rpc/client.h"
#include "rpc/server.h"
#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "vobject/vobject.h"

namespace {

using namespace VORN;
using boost::system::error_code;
using Socket = boost::asio::local::stream_protocol::socket;
using Endpoint = boost::asio::local::stream_protocol::endpoint;

constexpr int BATCH = 2000;  // calls that are counted together

VObject small_map() {
  VObject map = VObject::new_hash();
  map.store("user", "ada").store("id", 123456).store("active", true).store("score", 0.5);
  return map;
}

void check(bool right) {
  if (!right) throw std::runtime_error("a wrong answer");
}

class Path {
 public:
  Path() : folder_("/tmp/vorn-bench-XXXXXX") { check(mkdtemp(folder_.data()) != nullptr); }
  ~Path() {
    unlink(text().c_str());
    rmdir(folder_.c_str());
  }
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;
  std::string text() const { return folder_ + "/socket"; }

 private:
  std::string folder_;
};

/// Reads messages and writes others, with nothing else.
class BareConnection : public std::enable_shared_from_this<BareConnection> {
 public:
  using OnMessage = std::function<void(BareConnection&, const VObject&)>;

  BareConnection(Socket socket, OnMessage on_message)
      : socket_(std::move(socket)), on_message_(std::move(on_message)), chunk_(65536) {}

  void read() {
    socket_.async_read_some(boost::asio::buffer(chunk_),
                            [self = shared_from_this()](const error_code& error, size_t size) {
                              if (error) return;
                              self->decoder_.feed({self->chunk_.data(), size}, [&](STREAM::StreamFrame& frame) {
                                for (const VObject& message : frame.messages) self->on_message_(*self, message);
                              });
                              self->read();
                            });
  }

  void write(const VObject& message) {
    const std::string_view bytes = encoder_.frame(message);
    boost::asio::async_write(socket_, boost::asio::buffer(bytes.data(), bytes.size()),
                             [self = shared_from_this()](const error_code&, size_t) {});
  }

 private:
  Socket socket_;
  OnMessage on_message_;
  std::vector<char> chunk_;
  STREAM::StreamDecoder decoder_;
  STREAM::StreamEncoder encoder_;
};

class BareServer {
 public:
  explicit BareServer(const std::string& path) : acceptor_(io_, Endpoint(path)) {
    accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~BareServer() {
    io_.stop();
    thread_.join();
  }
  BareServer(const BareServer&) = delete;
  BareServer& operator=(const BareServer&) = delete;

 private:
  void accept() {
    acceptor_.async_accept([this](const error_code& error, Socket socket) {
      if (error) return;
      std::make_shared<BareConnection>(std::move(socket), [](BareConnection& connection, const VObject& request) {
        const VObjectVector& parts = request.getvec();
        connection.write(VObject(VObjectVector{parts[0], VObject(), parts[2].getvec()[0]}));
      })->read();
      accept();
    });
  }

  boost::asio::io_context io_{1};
  boost::asio::local::stream_protocol::acceptor acceptor_;
  std::thread thread_;
};

class LibraryServer {
 public:
  LibraryServer(const std::string& path, size_t workers) {
    RPC::Methods methods;
    methods.add("echo", 1, [](VObjectVector& arguments) { return arguments[0]; });
    RPC::ServerOptions options;
    options.workers = workers;
    server_ = std::make_unique<RPC::Server>(io_.get_executor(), "unix:" + path, methods, options);
    thread_ = std::thread([this] { io_.run(); });
  }
  ~LibraryServer() {
    server_->stop();
    thread_.join();
  }
  LibraryServer(const LibraryServer&) = delete;
  LibraryServer& operator=(const LibraryServer&) = delete;

 private:
  boost::asio::io_context io_{1};
  std::unique_ptr<RPC::Server> server_;
  std::thread thread_;
};

/// The bare loop, to as many clients as the argument says.
void bare_calls(benchmark::State& state) {
  const Path path;
  const BareServer server(path.text());
  boost::asio::io_context io(1);
  const VObject value = small_map();
  const VObject request(VObjectVector{1, "echo", VObject(VObjectVector{value})});
  int64_t left = 0;
  int in_flight = 0;
  std::vector<std::shared_ptr<BareConnection>> clients;
  for (int64_t n = 0; n < state.range(0); ++n) {
    Socket socket(io);
    socket.connect(Endpoint(path.text()));
    const auto on_answer = [&](BareConnection& connection, const VObject& answer) {
      check(answer.getvec()[2] == value);
      --in_flight;
      if (left-- > 0) ++in_flight, connection.write(request);
    };
    clients.push_back(std::make_shared<BareConnection>(std::move(socket), on_answer));
    clients.back()->read();
  }
  while (state.KeepRunningBatch(BATCH)) {
    left = BATCH;
    for (const auto& client : clients) {
      if (left-- > 0) ++in_flight, client->write(request);
    }
    while (in_flight > 0) io.run_one();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(bare_calls)->Arg(1)->Arg(32)->UseRealTime();

/// The library's server, with so many workers, and as many clients that do not wait.
void library_calls(benchmark::State& state) {
  const Path path;
  const LibraryServer server(path.text(), static_cast<size_t>(state.range(1)));
  boost::asio::io_context io(1);
  const VObject value = small_map();
  const VObjectVector arguments{value};
  int64_t left = 0;
  int in_flight = 0;
  std::vector<std::unique_ptr<RPC::AsyncClient>> clients;
  for (int64_t n = 0; n < state.range(0); ++n) {
    clients.push_back(std::make_unique<RPC::AsyncClient>(io.get_executor(), "unix:" + path.text()));
  }
  const std::function<void(RPC::AsyncClient&)> call = [&](RPC::AsyncClient& client) {
    if (left-- <= 0) return;
    ++in_flight;
    client.call("echo", arguments, [&](const RPC::Outcome& outcome) {
      check(outcome.result() == value);
      --in_flight;
      call(client);
    });
  };
  while (state.KeepRunningBatch(BATCH)) {
    left = BATCH;
    for (const auto& client : clients) call(*client);
    while (in_flight > 0) io.run_one();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(library_calls)->Args({1, 0})->Args({32, 0})->Args({1, 8})->Args({32, 8})->UseRealTime();

/// One client that waits.
void waiting_calls(benchmark::State& state) {
  const Path path;
  const LibraryServer server(path.text(), static_cast<size_t>(state.range(0)));
  RPC::Client client("unix:" + path.text());
  const VObject value = small_map();
  const VObjectVector arguments{value};
  while (state.KeepRunningBatch(BATCH)) {
    for (int n = 0; n < BATCH; ++n) check(client.call("echo", arguments) == value);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(waiting_calls)->Arg(0)->Arg(8)->UseRealTime();

}  // namespace
