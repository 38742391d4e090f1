// The C++ server of bin/demo: listens on a loopback port that the system chooses, prints its number, and serves one
// client. Like examples/demo/server.rb it checks each record that arrives, and returns the decoded record and its
// counts.

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "vobject/render.h"
#include "vobject/vobject.h"

namespace {

using boost::asio::ip::tcp;
using VORN::VObject;
using VORN::STREAM::StreamDecoder;
using VORN::STREAM::StreamEncoder;
using VORN::STREAM::StreamFrame;

constexpr uint32_t MAX_PAYLOAD = 1 << 24;

// From single bytes to more than a network packet; no size divides another, so reads and frames never align.
constexpr std::array<size_t, 8> CHUNK_SIZES{1, 7, 1460, 3, 4093, 61, 65521, 251};

/// The checksum that both sides compute over a value: see examples/demo/tally.rb.
class Tally {
 public:
  explicit Tally(const VObject& value) { add(value); }

  VObject to_hash() const {
    VObject hash = VObject::new_hash();
    hash.store("values", values_).store("bytes", bytes_).store("sum", sum_);
    return hash;
  }

 private:
  void add(const VObject& value) {
    ++values_;
    switch (value.type()) {
      case VORN::DT_STR: return text(value.getstr());
      case VORN::DT_VECTOR:
        for (const VObject& element : value.getvec()) add(element);
        return;
      case VORN::DT_HASH:
        for (const auto& [key, member] : value.gethash()) {
          ++values_;
          text(key.view());
          add(member);
        }
        return;
      default: return;
    }
  }

  void text(std::string_view bytes) {
    uint64_t sum = 0;
    for (const char c : bytes) sum += static_cast<uint8_t>(c);
    bytes_ += bytes.size();
    sum_ = (sum_ + values_ * sum) % (uint64_t{1} << 31);
  }

  uint64_t values_ = 0;
  uint64_t bytes_ = 0;
  uint64_t sum_ = 0;
};

std::string rendered(const VObject& value) {
  std::string text;
  VORN::render(value, text);
  return text;
}

VObject answer_to(const VObject& message) {
  if (!message.has_key("id") || !message.has_key("record")) throw std::runtime_error("a message without a record");
  const VObject& record = message.fetch("record");
  const VObject tally = Tally(record).to_hash();
  const VObject& announced = message.fetch("tally");
  if (tally != announced) {
    throw std::runtime_error("record " + rendered(message.fetch("id")) + ": counted " + rendered(tally) +
                             ", announced " + rendered(announced));
  }
  VObject answer = VObject::new_hash();
  answer.store("id", message.fetch("id")).store("record", record).store("tally", tally);
  return answer;
}

/// Serves until the client closes its side. Returns the number of records.
size_t serve(tcp::socket& client) {
  StreamDecoder decoder({MAX_PAYLOAD});
  StreamEncoder encoder({MAX_PAYLOAD});
  size_t frames = 0;
  size_t records = 0;
  const auto answer = [&](StreamFrame& frame) {
    if (frame.seq != frames % 65536)
      throw std::runtime_error("frame " + std::to_string(frame.seq) + " out of sequence");
    ++frames;
    std::vector<VObject> answers;
    for (const VObject& message : frame.messages) answers.push_back(answer_to(message));
    records += answers.size();
    // Alternates between the two layouts.
    encoder.use_twelve_byte_header(frames % 2 == 0);
    const std::string_view bytes = encoder.frame(answers);
    boost::asio::write(client, boost::asio::buffer(bytes.data(), bytes.size()));
  };

  size_t chunks = 0;
  std::string received(65536, '\0');
  boost::system::error_code error;
  while (const size_t size = client.read_some(boost::asio::buffer(received), error)) {
    for (std::string_view rest(received.data(), size); !rest.empty(); ++chunks) {
      const std::string_view chunk = rest.substr(0, CHUNK_SIZES[chunks % CHUNK_SIZES.size()]);
      decoder.feed(chunk, answer);
      rest.remove_prefix(chunk.size());
    }
  }
  if (error != boost::asio::error::eof) throw boost::system::system_error(error);
  decoder.finish();
  return records;
}

std::string chunk_sizes() {
  auto sizes = CHUNK_SIZES;
  std::sort(sizes.begin(), sizes.end());
  std::string text;
  for (const size_t size : sizes) text += (text.empty() ? "" : ", ") + std::to_string(size);
  return text;
}

}  // namespace

int main() try {
  boost::asio::io_context io;
  tcp::acceptor listener(io, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
  std::cout << listener.local_endpoint().port() << std::endl;
  tcp::socket client = listener.accept();
  const size_t records = serve(client);
  std::cerr << "server: " << records << " records checked, read in chunks of " << chunk_sizes() << " bytes at most\n";
  return 0;
} catch (const std::exception& e) {
  std::cerr << "server: " << e.what() << "\n";
  return 1;
}
