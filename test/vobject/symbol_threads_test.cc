/// The symbol table under many threads. Run it under ThreadSanitizer.
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "test/vobject/values.h"
#include "vobject/symbol_table.h"

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

/// Threads that make names, meet those of others and use again what they know, while the table grows: a name whose
/// place moved or was taken has another id, or another id's name.
class SymbolSharing : public testing::TestWithParam<int> {};

TEST_P(SymbolSharing, WhatAThreadKnowsStays) {
  constexpr int SHARE = 400;
  const int count = GetParam();
  const auto name = [count](int n) { return std::to_string(count) + " share " + std::to_string(n); };
  std::vector<std::vector<uint32_t>> ids(count);
  std::atomic<int> waiting{count};
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) {
    threads.emplace_back([&, t] {
      --waiting;
      while (waiting > 0) std::this_thread::yield();
      // Half of a thread's names are the next thread's too.
      for (int i = 0; i < SHARE; ++i) {
        ids[t].push_back(VObject::intern(name(t * SHARE / 2 + i)));
        for (int known = i; known >= 0; known = known * 2 / 3 - 1) {
          if (VObject::intern(name(t * SHARE / 2 + known)) != ids[t][known]) ++faults;
          if (*VObject::sym_lookup(ids[t][known]) != name(t * SHARE / 2 + known)) ++faults;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(0, faults);
  std::set<uint32_t> distinct;
  for (int t = 0; t < count; ++t) {
    for (int i = 0; i < SHARE; ++i) {
      EXPECT_EQ(ids[t][i], VObject::intern(name(t * SHARE / 2 + i)));
      distinct.insert(ids[t][i]);
    }
  }
  EXPECT_EQ(static_cast<size_t>((count + 1) * SHARE / 2), distinct.size());
}

INSTANTIATE_TEST_SUITE_P(Threads, SymbolSharing, testing::Values(8, 16));

/// Every use of the table that takes its lock, each by itself; whether it found what it should.
std::vector<std::function<bool()>> single_uses() {
  const uint32_t id = VObject::intern("known from before");
  VObject symbol("known from before");
  symbol.intern();
  const std::string bytes("\x06\x11known from before");
  return {
      [=] { return VObject::intern("known from before") == id; },
      [=] { return *VObject::sym_lookup(id) == "known from before"; },
      [=] { return rendered(symbol) == ":\"known from before\""; },
      [=] { return encoded(symbol) == bytes; },
  };
}

/// Half of the threads make names. Each of the others does one thing only, so that no lock which it takes elsewhere
/// orders its use of the table with theirs.
TEST(SymbolThreads, EachUseIsSafeByItself) {
  const std::vector<std::function<bool()>> uses = single_uses();
  constexpr int MAKERS = 8;
  std::atomic<int> making{MAKERS};
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < MAKERS; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) VObject::intern("maker " + std::to_string(t * 1000 + i));
      --making;
    });
    const std::function<bool()>& use = uses[static_cast<size_t>(t) % uses.size()];
    threads.emplace_back([&] {
      do {
        if (!use()) ++faults;
      } while (making > 0);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, faults);
}

/// Finds a missing lock without a sanitizer: the use would finish while another thread holds the lock.
TEST(SymbolThreads, EachUseWaitsForTheLock) {
  const std::vector<std::function<bool()>> uses = single_uses();
  for (size_t i = 0; i < uses.size(); ++i) {
    std::atomic<bool> begun{false};
    std::atomic<bool> ended{false};
    SymbolTable::Lock hold(SymbolTable::instance().symbol_table_lock());
    std::thread user([&] {
      begun = true;
      EXPECT_TRUE(uses[i]());
      ended = true;
    });
    while (!begun) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(ended) << "use " << i;
    hold.unlock();
    user.join();
    EXPECT_TRUE(ended) << "use " << i;
  }
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
