// A server when memory runs out.

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "rpc/client.h"
#include "rpc/server_options.h"
#include "test/rpc/rpc_fixture.h"
#include "test/support/allocations.h"

using namespace VORN;
using namespace vorn_test;
using RPC::Client;
using RPC::ServerOptions;

namespace {

// Methods on worker threads, and on the server's own.
class RpcServerMemory : public testing::TestWithParam<size_t> {};

INSTANTIATE_TEST_SUITE_P(Workers, RpcServerMemory, testing::Values(8, 0));

}  // namespace

// An answer for which there is no memory costs its client the connection, and nobody a place.
TEST_P(RpcServerMemory, AnswersWithoutMemory) {
  ServerOptions with_places;
  with_places.workers = GetParam();
  with_places.max_in_progress_of_all = 3;
  with_places.around = [](const std::string& name, const VObjectVector&, const std::function<void()>& run) {
    if (name != "drop") return run();
    const LimitAllocations none(0);
    run();
  };
  RunningServer server(test_methods(), with_places);
  std::vector<Peer> peers;
  for (int n = 0; n < 3; ++n) {
    peers.emplace_back(server.address());
    peers.back().send(request_frame(1, "drop", {}));
  }
  Client waiting(server.address());
  EXPECT_EQ(waiting.call("add", {1, 2}), VObject(3)) << "in the places of those who are closed";
  for (const Peer& peer : peers) EXPECT_TRUE(peer.closed());
  EXPECT_EQ(server.logged("an answer was lost for want of memory; closing"), 3U);
}
