// An RPC server with a reading and a writing thread for each connection, and a pool of worker threads, which never wait
// for a client.
//
//   rpc_server [ADDRESS [IDLE_SECONDS]]
//
// ADDRESS defaults to tcp:127.0.0.1:0 (the kernel chooses the port). The first line of output is the address. On TERM
// and INT it answers the requests that were begun, and exits.

#include <poll.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "examples/native/bad_message.h"
#include "examples/native/bounded_queue.h"
#include "examples/native/patience.h"
#include "examples/native/service.h"
#include "examples/native/sockets.h"
#include "proto/vorn_exception.h"
#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"

namespace {

using rpc::log_line;
using VORN::VObject;
using VORN::STREAM::StreamDecoder;
using VORN::STREAM::StreamEncoder;
using VORN::STREAM::StreamFrame;

constexpr uint32_t MAX_PAYLOAD = 1 << 20;  // of requests and answers; decoded values take more, see examples/README.md
constexpr size_t MAX_CONNECTIONS = 200;
constexpr size_t WORKERS = 8;
constexpr size_t SHARE = WORKERS / 2;  // unanswered requests of one client; then the server reads no more from it
constexpr std::chrono::seconds WRITE_TIME{2};  // how long a client may leave an answer unread
constexpr std::chrono::seconds IDLE_TIME{60};  // how long a client that waits for no answer may be silent

struct Answer {
  VObject value;
  bool twelve_byte_header = false;
};

struct Connection {
  explicit Connection(rpc::Socket&& client) : socket(std::move(client)), name(rpc::peer_of(socket)) {}

  rpc::Socket socket;
  const std::string name;
  rpc::BoundedQueue<bool> in_progress{SHARE};  // one element per unanswered request
  rpc::BoundedQueue<Answer> answers{SHARE};    // for the writing thread; bounded by the client's share
  std::atomic<bool> gone{false};               // nothing can be sent any more
};

struct Job {
  std::shared_ptr<Connection> connection;
  VObject request;
  bool twelve_byte_header = false;
};

/// The answer's frame, in the layout of the request. A result that cannot be sent becomes an error: otherwise the
/// client would wait for its timeout.
std::string_view frame_of(StreamEncoder& encoder, const VObject& answer, bool twelve_byte_header) {
  const VObject& id = answer.getvec()[0];
  encoder.use_twelve_byte_header(twelve_byte_header);
  try {
    return encoder.frame(answer);
  } catch (const VORN::STREAM::MessageTooLarge& e) {
    return encoder.frame(rpc::failure(id, "too large", e.what()));
  } catch (const VORN::VornException& e) {
    log_line(std::string("the result cannot be sent: ") + e.what());
    return encoder.frame(rpc::failure(id, "failed", "the result cannot be sent"));
  }
}

class Server {
 public:
  Server(const std::string& address, std::chrono::milliseconds idle_time)
      : listener_(rpc::listen_at(address)), idle_time_(idle_time) {}

  std::string address() const { return rpc::address_of(listener_); }

  /// Runs until a signal handler sets `ended`; `waiting` is the signal mask that lets the signals through.
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
    std::weak_ptr<Connection> connection;  // owned by its thread and its jobs, so it closes with the last answer
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
      start_reader(std::make_shared<Connection>(std::move(client)));
    } catch (const std::system_error& e) {
      log_line(e.what());
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until descriptors or threads are free
    }
  }

  void start_reader(std::shared_ptr<Connection> connection) {
    Reader& reader = readers_.emplace_back();
    reader.connection = connection;
    try {
      reader.thread = std::thread([this, &reader, connection = std::move(connection)]() mutable {
        serve(connection);
        connection.reset();
        reader.done = true;
      });
    } catch (...) {
      readers_.pop_back();
      throw;
    }
  }

  void serve(const std::shared_ptr<Connection>& connection) {
    std::thread writer;
    try {
      writer = std::thread([&connection] { write(*connection); });
      receive(connection);
    } catch (const VORN::STREAM::DamagedStream& e) {
      log_line(connection->name + ": " + e.what() + "; closing");
    } catch (const rpc::BadMessage& e) {
      log_line(connection->name + ": " + e.what() + "; closing");
    } catch (const rpc::Silent& e) {
      log_line(connection->name + ": " + e.what() + "; closing");
    } catch (const std::exception& e) {
      log_line(connection->name + ": " + e.what());
    }
    connection->answers.close();
    if (writer.joinable()) writer.join();
    connection->gone = true;
    connection->socket.shutdown();
  }

  void receive(const std::shared_ptr<Connection>& connection) {
    StreamDecoder decoder({MAX_PAYLOAD});
    rpc::Patience patience(idle_time_);
    std::string bytes;
    for (;;) {
      while (!connection->socket.wait_readable(patience.deadline())) patience.over(!connection->in_progress.empty());
      if (!connection->socket.receive(bytes)) return;
      decoder.feed(bytes, [&](StreamFrame& frame) {
        for (VObject& request : frame.messages) {
          rpc::check_request(request);
          if (!connection->in_progress.push(true) || connection->gone) throw rpc::BadMessage("nothing can be answered");
          patience.whole_frame();
          requests_.push({connection, std::move(request), frame.twelve_byte_header});
        }
      });
      bytes.clear();
      patience.heard(decoder.between_frames());
    }
  }

  void work() {
    Job job;
    while (requests_.pop(job)) {
      try {
        // Requests of a client that has disconnected are skipped.
        if (!job.connection->gone) job.request = rpc::answer_to(job.request);
        job.connection->answers.push({std::move(job.request), job.twelve_byte_header});
      } catch (const std::exception& e) {
        log_line(job.connection->name + ": " + e.what() + "; closing");
        job.connection->gone = true;
        job.connection->socket.shutdown();
      }
      job = Job();
    }
  }

  /// A request counts towards the client's share until its answer is sent, so that unread answers are bounded too.
  static void write(Connection& connection) {
    StreamEncoder encoder({MAX_PAYLOAD});
    Answer answer;
    bool token = false;
    while (connection.answers.pop(answer)) {
      try {
        if (!connection.gone && answer.value.type() != VORN::DT_NIL) {
          connection.socket.send_all(frame_of(encoder, answer.value, answer.twelve_byte_header),
                                     rpc::Clock::now() + WRITE_TIME);
        }
      } catch (const std::exception& e) {
        // The client has disconnected or reads no answers. Shutting the socket down stops the reading thread.
        log_line(connection.name + ": " + e.what() + "; answer dropped");
        connection.gone = true;
        connection.socket.shutdown();
      }
      answer = Answer();
      connection.in_progress.pop(token);
    }
  }

  /// Workers finish the requests they have begun, readers stop at the end of input, writers send the answers they have.
  void finish() {
    requests_.clear();
    requests_.close();
    for (std::thread& worker : workers_) worker.join();
    for (Reader& reader : readers_) {
      if (const auto connection = reader.connection.lock()) {
        connection->socket.shutdown_receive();
        connection->in_progress.close();  // its reader may be waiting for room
      }
      reader.thread.join();
    }
  }

  rpc::Socket listener_;
  const std::chrono::milliseconds idle_time_;
  rpc::BoundedQueue<Job> requests_{SHARE * MAX_CONNECTIONS};  // the clients' shares bound it, so it is never full
  std::vector<std::thread> workers_;
  std::list<Reader> readers_;  // used only by the accepting thread
};

volatile std::sig_atomic_t ended = 0;

}  // namespace

int main(int argc, char** argv) try {
  // Only the accepting thread takes these signals, and only while it waits.
  sigset_t ending, others;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, &others);
  struct sigaction action {};
  action.sa_handler = [](int) { ended = 1; };
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  const double idle_seconds = argc > 2 ? std::stod(argv[2]) : IDLE_TIME.count();
  if (!(idle_seconds > 0 && idle_seconds < 1e6)) throw std::invalid_argument("IDLE_SECONDS: from 0 to 1e6");
  Server server(argc > 1 ? argv[1] : "tcp:127.0.0.1:0",
                std::chrono::milliseconds(static_cast<int64_t>(idle_seconds * 1000)));
  std::cout << "listening on " << server.address() << std::endl;
  server.run(ended, others);
  return 0;
} catch (const std::exception& e) {
  log_line(e.what());
  return 1;
}
