// An RPC server with a thread for each connection and a pool of threads that do the work.
//
//   rpc_server [ADDRESS]
//
// ADDRESS is tcp:127.0.0.1:0 (the kernel chooses the port) unless given. The first line of output tells where it
// listens. TERM and INT end it once the requests in progress are answered.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "examples/native/bounded_queue.h"
#include "examples/native/framing.h"
#include "examples/native/service.h"
#include "examples/native/sockets.h"
#include "proto/vorn_exception.h"

namespace {

using rpc::log_line;
using VORN::VObject;

constexpr uint32_t MAX_PAYLOAD = 1 << 20;  // of a request as of an answer; an empty array of two bytes takes 80 here
constexpr size_t MAX_CONNECTIONS = 200;
constexpr size_t WORKERS = 8;
constexpr size_t WAITING = 64;  // requests read and not begun; with more, no more are read and the senders feel it
constexpr std::chrono::seconds WRITE_TIME{2};  // how long a client may leave its answers unread

struct Connection {
  explicit Connection(rpc::Socket&& client)
      : socket(std::move(client)), name(rpc::peer_of(socket)), writer(MAX_PAYLOAD) {}

  rpc::Socket socket;
  const std::string name;
  std::mutex lock;  // of the writer: frames of several workers must not mix
  rpc::FrameWriter writer;
};

struct Job {
  std::shared_ptr<Connection> connection;
  VObject request;
  bool twelve_byte_header = false;
};

/// The answer's frame, in the layout of the request. A result that cannot be sent must be told too, or the client
/// waits in vain.
std::string_view frame_of(rpc::FrameWriter& writer, const VObject& answer, bool twelve_byte_header) {
  const VObject& id = answer.getvec()[0];
  try {
    return writer.frame(answer, twelve_byte_header);
  } catch (const rpc::MessageTooLarge& e) {
    return writer.frame(rpc::failure(id, "too large", e.what()), twelve_byte_header);
  } catch (const VORN::VornException& e) {
    log_line(std::string("the result cannot be sent: ") + e.what());
    return writer.frame(rpc::failure(id, "failed", "the result cannot be sent"), twelve_byte_header);
  }
}

class Server {
 public:
  explicit Server(const std::string& address) : listener_(rpc::listen_at(address)), requests_(WAITING) {}

  std::string address() const { return rpc::address_of(listener_); }

  /// Until `ended` is set by a signal, which `waiting` lets through.
  void run(const volatile std::sig_atomic_t& ended, const sigset_t& waiting) {
    for (size_t n = 0; n < WORKERS; ++n) workers_.emplace_back([this] { work(); });
    while (ended == 0) {
      pollfd ready{listener_.fd(), POLLIN, 0};
      if (ppoll(&ready, 1, nullptr, &waiting) > 0) accept();
    }
    finish();
  }

 private:
  struct Reader {
    std::weak_ptr<Connection> connection;  // its thread and the jobs hold it: it closes with the last answer
    std::atomic<bool> done{false};
    std::thread thread;
  };

  void accept() {
    readers_.remove_if([](Reader& reader) {
      if (!reader.done) return false;
      reader.thread.join();
      return true;
    });
    try {
      rpc::Socket client = rpc::accept_from(listener_);
      if (client.fd() < 0) return;
      if (readers_.size() >= MAX_CONNECTIONS) return log_line("too many connections; closing the newest");
      Reader& reader = readers_.emplace_back();
      auto connection = std::make_shared<Connection>(std::move(client));
      reader.connection = connection;
      reader.thread = std::thread([this, &reader, connection = std::move(connection)]() mutable {
        serve(connection);
        connection.reset();
        reader.done = true;
      });
    } catch (const std::system_error& e) {
      log_line(e.what());
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until descriptors or threads are free
    }
  }

  void serve(const std::shared_ptr<Connection>& connection) {
    try {
      rpc::FrameReader reader(MAX_PAYLOAD);
      std::string bytes;
      while (connection->socket.receive(bytes)) {
        reader.feed(bytes, [&](rpc::InboundFrame& frame) {
          if (frame.messages.size() != 1) throw rpc::BadFrame("a frame holds something else than one message");
          rpc::check_request(frame.messages[0]);
          requests_.push({connection, std::move(frame.messages[0]), frame.twelve_byte_header});
        });
        bytes.clear();
      }
    } catch (const rpc::BadFrame& e) {
      log_line(connection->name + ": " + e.what() + "; closing");
      connection->socket.shutdown();
    } catch (const std::exception& e) {
      log_line(connection->name + ": " + e.what());
      connection->socket.shutdown();
    }
  }

  void work() {
    Job job;
    while (requests_.pop(job)) {
      Connection& connection = *job.connection;
      try {
        const VObject answer = rpc::answer_to(job.request);
        const std::lock_guard<std::mutex> hold(connection.lock);
        connection.socket.send_all(frame_of(connection.writer, answer, job.twelve_byte_header),
                                   rpc::Clock::now() + WRITE_TIME);
      } catch (const std::exception& e) {
        // The client is gone or reads no answers. The end of input tells the reader to stop.
        log_line(connection.name + ": " + e.what() + "; answer dropped");
        connection.socket.shutdown();
      }
      job = Job();
    }
  }

  void finish() {
    requests_.close();
    for (std::thread& worker : workers_) worker.join();
    for (Reader& reader : readers_) {
      if (const auto connection = reader.connection.lock()) connection->socket.shutdown();
      reader.thread.join();
    }
  }

  rpc::Socket listener_;
  rpc::BoundedQueue<Job> requests_;
  std::vector<std::thread> workers_;
  std::list<Reader> readers_;  // touched by the accepting thread alone
};

volatile std::sig_atomic_t ended = 0;

}  // namespace

int main(int argc, char** argv) try {
  // Only the thread that accepts clients takes these signals, and only while it waits.
  sigset_t ending, others;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, &others);
  struct sigaction action {};
  action.sa_handler = [](int) { ended = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  Server server(argc > 1 ? argv[1] : "tcp:127.0.0.1:0");
  std::cout << "listening on " << server.address() << std::endl;
  server.run(ended, others);
  return 0;
} catch (const std::exception& e) {
  log_line(e.what());
  return 1;
}
