/// The symbol table under eight threads. Run it under ThreadSanitizer.
#include <atomic>
#include <thread>

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

constexpr int THREADS = 8;
constexpr int NAMES = 500;
constexpr int ROUNDS = 4;

std::string name_of(int n) {
  return "thread name " + std::to_string(n);
}

TEST(SymbolThreads, OneIdForEachNameInTheEnd) {
  std::vector<std::vector<uint32_t>> ids(THREADS, std::vector<uint32_t>(NAMES));
  std::atomic<int> waiting{THREADS};
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      --waiting;
      while (waiting > 0) std::this_thread::yield();
      for (int round = 0; round < ROUNDS; ++round) {
        for (int i = 0; i < NAMES; ++i) {
          const int n = (i * 7 + t * 61) % NAMES;  // each thread in an order of its own
          const uint32_t id = VObject::intern(name_of(n));
          if (round > 0 && ids[t][n] != id) ++faults;
          ids[t][n] = id;
          if (*VObject::sym_lookup(id) != name_of(n)) ++faults;
          VObject symbol(name_of(n));
          symbol.intern();
          if (rendered(symbol) != ":\"" + name_of(n) + "\"") ++faults;
          PROTO::PacketBuf buf;
          symbol.serialize(buf, 1);
          VObject back;
          const uint64_t end = buf.pos();
          buf.set_pos(0);
          VObject::deserialize(buf, end, back, false, 1);
          if (back != symbol) ++faults;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(0, faults);
  std::set<uint32_t> distinct;
  for (int n = 0; n < NAMES; ++n) {
    for (int t = 1; t < THREADS; ++t) EXPECT_EQ(ids[0][n], ids[t][n]);
    EXPECT_EQ(name_of(n), *VObject::sym_lookup(ids[0][n]));
    distinct.insert(ids[0][n]);
  }
  EXPECT_EQ(static_cast<size_t>(NAMES), distinct.size());
}

TEST(SymbolThreads, SharersMayBeCopiedAndEndedAnywhere) {
  int destroyed = 0;
  {
    const VObject shared = vec({"text", hash({{"k", VObject(number(1, &destroyed))}})});
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
      threads.emplace_back([&shared] {
        for (int i = 0; i < 2000; ++i) {
          const VObject copy(shared);
          VObject element;
          element = copy.getvec()[1];
          element = VObject("over");
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, destroyed);
  }
  EXPECT_EQ(1, destroyed);
}

}  // namespace
