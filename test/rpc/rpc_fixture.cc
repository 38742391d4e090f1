#include "test/rpc/rpc_fixture.h"

#ifndef _WIN32
#include <sys/un.h>
#include <unistd.h>
#endif
#include <boost/asio/io_context.hpp>
#include <cstdlib>
#include <cstring>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "proto/packet_frame_out.h"
#include "rpc/errors.h"
#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "vobject/render.h"

using namespace VORN;
using namespace std::chrono_literals;

namespace vorn_test {

namespace {

constexpr std::chrono::seconds LIMIT{10};

bool wait_for(BareSocket socket, short events, std::chrono::milliseconds time) {
  pollfd waiting{socket, events, 0};
  return poll(&waiting, 1, static_cast<int>(time.count())) > 0;
}

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string(what) + ": error " + std::to_string(last_socket_error()));
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  where.sin_port = htons(port);
  return where;
}

BareSocket opened(int family) {
  const BareSocket opened = socket(family, SOCK_STREAM, 0);
  check(opened != NO_SOCKET, "socket");
  return opened;
}

template <typename Address>
BareSocket connected(int family, const Address& where) {
  const BareSocket made = opened(family);
  check(connect(made, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0, "connect");
  return made;
}

BareSocket connected(const std::string& address) {
#ifndef _WIN32
  if (address.compare(0, 5, "unix:") == 0) {
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    address.substr(5).copy(where.sun_path, sizeof where.sun_path - 1);
    return connected(AF_UNIX, where);
  }
#endif
  return connected(AF_INET, loopback(static_cast<uint16_t>(std::stoul(address.substr(address.rfind(':') + 1)))));
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto limit = std::chrono::steady_clock::now() + LIMIT;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

RPC::Methods test_methods() {
  RPC::Methods methods;
  methods.add("echo", 1, [](VObjectVector& arguments) { return arguments[0]; });
  methods.add("add", 2, [](VObjectVector& arguments) { return arguments[0].to_i64() + arguments[1].to_i64(); });
  methods.add("sleep", 1, [](VObjectVector& arguments) {
    std::this_thread::sleep_for(std::chrono::milliseconds(arguments[0].to_i64()));
    return arguments[0];
  });
  methods.add("fill", 1,
              [](VObjectVector& arguments) { return std::string(static_cast<size_t>(arguments[0].to_i64()), 'x'); });
  methods.add("fail", 0, [](VObjectVector&) -> VObject { throw std::runtime_error("as told"); });
  methods.add_later("later", 1, [](VObjectVector& arguments, RPC::Answer answer) {
    std::thread([value = arguments[0], answer = std::move(answer)]() mutable { answer.result(value); }).detach();
  });
  methods.add_later("drop", 0, [](VObjectVector&, const RPC::Answer&) {});
  return methods;
}

#ifndef _WIN32

UnixAddress::UnixAddress() : folder_("/tmp/vorn-rpc-XXXXXX") {
  check(mkdtemp(folder_.data()) != nullptr, "mkdtemp");
}

UnixAddress::~UnixAddress() {
  unlink(path().c_str());
  rmdir(folder_.c_str());
}

#else

UnixAddress::UnixAddress() = default;
UnixAddress::~UnixAddress() = default;

#endif

struct RunningServer::Parts {
  mutable std::mutex lock;
  std::string log;
  boost::asio::io_context io{1};
  std::unique_ptr<RPC::Server> server;
  std::future<void> running;
};

RunningServer::RunningServer(RPC::Methods methods, RPC::ServerOptions options, const std::string& address)
    : parts_(std::make_unique<Parts>()) {
  options.log = [parts = parts_.get()](RPC::LogLevel, const std::string& line) {
    const std::lock_guard<std::mutex> hold(parts->lock);
    parts->log += line + "\n";
  };
  const auto executor = parts_->io.get_executor();
  if (address.empty()) {
    parts_->server = std::make_unique<RPC::Server>(executor, std::move(methods), std::move(options));
  } else {
    parts_->server = std::make_unique<RPC::Server>(executor, address, std::move(methods), std::move(options));
  }
  parts_->running = std::async(std::launch::async, [this] { parts_->io.run(); });
}

RunningServer::~RunningServer() {
  end();
}

void RunningServer::end() {
  if (!parts_->running.valid()) return;
  server().stop();
  if (!ends()) {
    ADD_FAILURE() << "the server does not stop";
    parts_->io.stop();
  }
  EXPECT_NO_THROW(parts_->running.get());
}

bool RunningServer::ends() const {
  return parts_->running.wait_for(LIMIT) == std::future_status::ready;
}

RPC::Server& RunningServer::server() const {
  return *parts_->server;
}

const std::string& RunningServer::address() const {
  return parts_->server->address();
}

boost::asio::any_io_executor RunningServer::executor() const {
  return parts_->io.get_executor();
}

std::string RunningServer::log() const {
  const std::lock_guard<std::mutex> hold(parts_->lock);
  return parts_->log;
}

size_t RunningServer::logged(const std::string& text) const {
  const std::string all = log();
  size_t count = 0;
  for (size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size()) ++count;
  return count;
}

Peer::Peer(const std::string& address) : Peer(connected(address)) {}

Peer::Peer(BareSocket socket) : socket_(socket) {
  make_nonblocking(socket_);
}

Peer::Peer(Peer&& src) noexcept : socket_(std::exchange(src.socket_, NO_SOCKET)) {}

Peer::~Peer() {
  close();
}

bool Peer::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    if (!wait_for(socket_, POLLOUT, LIMIT)) return false;
    const auto sent = send_bytes(socket_, bytes.data(), bytes.size());
    if (sent < 0 && !would_wait()) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

std::string Peer::receive() const {
  std::string bytes(65536, '\0');
  if (!wait_for(socket_, POLLIN, LIMIT)) return "";
  const auto size = receive_bytes(socket_, bytes.data(), bytes.size());
  bytes.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return bytes;
}

std::vector<VObject> Peer::messages(size_t count) const {
  STREAM::StreamDecoder decoder;
  std::vector<VObject> all;
  while (all.size() < count) {
    const std::string bytes = receive();
    if (bytes.empty()) break;
    decoder.feed(bytes, [&](STREAM::StreamFrame& frame) {
      for (const VObject& message : frame.messages) all.push_back(message);
    });
  }
  return all;
}

bool Peer::closed() const {
  const auto limit = std::chrono::steady_clock::now() + LIMIT;
  std::string bytes(65536, '\0');
  while (std::chrono::steady_clock::now() < limit) {
    if (!wait_for(socket_, POLLIN, LIMIT)) return false;
    if (receive_bytes(socket_, bytes.data(), bytes.size()) <= 0) return true;
  }
  return false;
}

bool Peer::readable(std::chrono::milliseconds time) const {
  return wait_for(socket_, POLLIN, time);
}

void Peer::close_sending() const {
  shutdown(socket_, SHUT_WR);
}

void Peer::reset() {
  const linger at_once{1, 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once), sizeof at_once);
  close();
}

void Peer::close() {
  if (socket_ != NO_SOCKET) close_socket(socket_);
  socket_ = NO_SOCKET;
}

Listener::Listener() : socket_(opened(AF_INET)) {
  sockaddr_in where = loopback(0);
  socklen_t size = sizeof where;
  check(bind(socket_, reinterpret_cast<sockaddr*>(&where), size) == 0, "bind");
  check(::listen(socket_, 128) == 0, "listen");
  check(getsockname(socket_, reinterpret_cast<sockaddr*>(&where), &size) == 0, "getsockname");
  address_ = "tcp:127.0.0.1:" + std::to_string(ntohs(where.sin_port));
}

Listener::~Listener() {
  close();
}

Peer Listener::accept() const {
  if (!wait_for(socket_, POLLIN, LIMIT)) throw std::runtime_error("nobody connects");
  const BareSocket accepted = ::accept(socket_, nullptr, nullptr);
  check(accepted != NO_SOCKET, "accept");
  return Peer(accepted);
}

bool Listener::waiting(std::chrono::milliseconds time) const {
  return wait_for(socket_, POLLIN, time);
}

void Listener::close() {
  if (socket_ != NO_SOCKET) close_socket(socket_);
  socket_ = NO_SOCKET;
}

std::string frame_of(const VObject& message) {
  return std::string(STREAM::StreamEncoder({1 << 24}).frame(message));
}

std::string request_frame(const VObject& id, const std::string& method, const VObjectVector& arguments) {
  return frame_of(VObject(VObjectVector{id, method, VObject(arguments)}));
}

std::string frame_around(const std::string& payload, bool twelve_byte_header) {
  PROTO::PacketFrameOut frame;
  frame.set_use_12byte_header(twelve_byte_header);
  frame.reset();
  frame.write_bytes(payload.data(), payload.size());
  frame.compute_frame_header();
  return frame.data().substr(0, static_cast<size_t>(frame.pos()));
}

std::string text_of(const VObject& value) {
  std::string text;
  render(value, text);
  return text;
}

std::string outcome_of(const std::function<VObject()>& call) {
  try {
    return text_of(call());
  } catch (const RPC::RemoteError& e) {
    return std::string("RemoteError: ") + e.what();
  } catch (const RPC::TimedOut& e) {
    return std::string("TimedOut: ") + e.what();
  } catch (const RPC::ConnectionLost& e) {
    return std::string("ConnectionLost: ") + e.what();
  } catch (const STREAM::MessageTooLarge& e) {
    return std::string("MessageTooLarge: ") + e.what();
  } catch (const std::exception& e) {
    return std::string("exception: ") + e.what();
  }
}

}  // namespace vorn_test
