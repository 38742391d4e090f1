// The server of the demonstration, in C++. It listens on a port that the system chooses, prints its number, and
// serves one client: checks each record that arrives and sends back what it decoded and what it counted.

#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>

#include <poll.h>

#include "examples/native/framing.h"
#include "examples/native/sockets.h"

namespace {

using VORN::VObject;

constexpr uint32_t MAX_PAYLOAD = 1 << 24;
constexpr std::chrono::seconds PATIENCE{30};

/// What examples/demo/tally.rb computes: the count of values, the count of bytes in strings, and a sum over those
/// bytes that depends on their order. Hashes count in the order of their keys, which is a variant's only one.
class Tally {
 public:
  void add(const VObject& value) {
    ++values_;
    if (value.type() == VORN::DT_STR) {
      text(value.getstr());
    } else if (value.type() == VORN::DT_VECTOR) {
      for (const VObject& element : value.getvec()) add(element);
    } else if (value.type() == VORN::DT_HASH) {
      for (const auto& [key, member] : value.gethash()) {
        ++values_;
        text(key.view());
        add(member);
      }
    }
  }

  VObject to_hash() const {
    VObject hash = VObject::new_hash();
    hash.store("values", values_);
    hash.store("bytes", bytes_);
    hash.store("sum", sum_);
    return hash;
  }

 private:
  void text(std::string_view bytes) {
    uint64_t sum = 0;
    for (const char byte : bytes) sum += static_cast<uint8_t>(byte);
    bytes_ += bytes.size();
    sum_ = (sum_ + values_ * sum) % (uint64_t{1} << 31);
  }

  uint64_t values_ = 0, bytes_ = 0, sum_ = 0;
};

VObject answer_to(const VObject& message) {
  if (message.type() != VORN::DT_HASH) throw std::runtime_error("not a record");
  Tally tally;
  tally.add(message.fetch("record"));
  const VObject counted = tally.to_hash();
  if (counted != message.fetch("tally")) throw std::runtime_error("counted otherwise than announced");
  VObject answer = VObject::new_hash();
  answer.store("id", message.fetch("id"));
  answer.store("record", message.fetch("record"));
  answer.store("tally", counted);
  return answer;
}

}  // namespace

int main() try {
  rpc::Socket client;
  {
    const rpc::Socket listener = rpc::listen_at("tcp:127.0.0.1:0");
    const std::string address = rpc::address_of(listener);
    std::cout << address.substr(address.rfind(':') + 1) << std::endl;
    pollfd ready{listener.fd(), POLLIN, 0};
    if (poll(&ready, 1, 1000 * static_cast<int>(PATIENCE.count())) <= 0) throw std::runtime_error("no client came");
    client = rpc::accept_from(listener);
  }

  rpc::FrameReader reader(MAX_PAYLOAD);
  rpc::FrameWriter writer(MAX_PAYLOAD);
  uint16_t expected_seq = 0;
  size_t records = 0;
  std::string bytes;
  while (client.receive(bytes)) {
    reader.feed(bytes, [&](rpc::InboundFrame& frame) {
      if (frame.seq != expected_seq++) throw std::runtime_error("a frame is missing");
      std::vector<VObject> answers;
      for (const VObject& message : frame.messages) answers.push_back(answer_to(message));
      client.send_all(writer.frame(answers, frame.twelve_byte_header), rpc::Clock::now() + PATIENCE);
      records += answers.size();
    });
    bytes.clear();
  }
  if (!reader.between_frames()) throw std::runtime_error("the client closed the connection within a frame");
  std::cerr << "server: " << records << " records checked and sent back as variants" << std::endl;
  return 0;
} catch (const std::exception& e) {
  std::cerr << "server: " << e.what() << std::endl;
  return 1;
}
