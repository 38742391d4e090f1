// The table of calls that both languages are held to.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "stream/stream_decoder.h"
#include "test/rpc/rpc_fixture.h"
#include "test/support/hex.h"
#include "test/support/vectors.h"

using namespace VORN;
using namespace vorn_test;

namespace {

// The answers to bytes and then to a request that ends the conversation; "closes" if that one has none.
std::vector<std::string> answers_to(const RunningServer& server, const std::string& bytes) {
  const Peer peer(server.address());
  EXPECT_TRUE(peer.send(bytes));
  EXPECT_TRUE(peer.send(request_frame("the end", "echo", {VObject()})));
  std::vector<std::string> answers;
  STREAM::StreamDecoder decoder;
  for (;;) {
    const std::string chunk = peer.receive();
    if (chunk.empty()) return {"closes"};
    bool ended = false;
    decoder.feed(chunk, [&](STREAM::StreamFrame& frame) {
      for (const VObject& answer : frame.messages) {
        ended = ended || answer.getvec()[0] == VObject("the end");
        if (answer.getvec()[0] != VObject("the end")) answers.push_back(to_hex(frame_of(answer).substr(8)));
      }
    });
    if (ended) return answers;
  }
}

}  // namespace

// With either header. One request at a time, so that answers come in order.
TEST(CallsTable, TheServerAnswers) {
  RPC::ServerOptions options;
  options.max_in_progress = 1;
  RunningServer server(test_methods(), options);
  for (const CallVector& v : call_vectors()) {
    for (const bool twelve_byte_header : {false, true}) {
      EXPECT_EQ(answers_to(server, frame_around(v.request, twelve_byte_header)), v.answers) << v.name;
    }
  }
}
