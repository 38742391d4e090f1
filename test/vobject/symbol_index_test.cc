#include "vobject/symbol_index.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using VORN::SymbolIndex;
using VORN::SymbolName;

/// An index with names whose hashes the test chooses.
class SymbolIndexTest : public testing::Test {
 protected:
  SymbolName* add(const std::string& text, size_t hash) {
    const uint32_t id = static_cast<uint32_t>(names_.size()) + 1;
    names_.push_back(std::make_unique<SymbolName>(SymbolName{text, id, hash}));
    index_.add(names_.back().get(), index_.room_for(id));
    return names_.back().get();
  }

  // Neither frees anything, so that it may be used to the very end.
  SymbolIndex& index_ = *kept(new SymbolIndex);
  std::vector<std::unique_ptr<SymbolName>>& names_ = *kept(new std::vector<std::unique_ptr<SymbolName>>);

 private:
  template <typename Thing>
  static Thing* kept(Thing* thing) {
    static std::vector<Thing*>& all = *new std::vector<Thing*>;  // leak checkers look after static objects have gone
    all.push_back(thing);
    return thing;
  }
};

TEST_F(SymbolIndexTest, FindsNothingWhereNothingIs) {
  EXPECT_EQ(nullptr, index_.find("", 0));
  const SymbolName* const empty = add("", 1);
  EXPECT_EQ(nullptr, index_.find("", 0));
  EXPECT_EQ(empty, index_.find("", 1));
}

TEST_F(SymbolIndexTest, TellsNamesOfOneHashApart) {
  std::vector<const SymbolName*> added;
  const std::vector<std::string> texts = {"", "a", "ab", "abc", "b", std::string("a\0", 2), std::string("a\0b", 3)};
  for (const std::string& text : texts) added.push_back(add(text, 5));
  for (size_t i = 0; i < texts.size(); ++i) EXPECT_EQ(added[i], index_.find(texts[i], 5));
  EXPECT_EQ(nullptr, index_.find("abcd", 5));
  EXPECT_EQ(nullptr, index_.find(std::string("a\0c", 3), 5));
}

TEST_F(SymbolIndexTest, LooksAsFarAsItMayPut) {
  std::vector<const SymbolName*> added;
  for (int i = 0; i < 18; ++i) added.push_back(add("name " + std::to_string(i), 62));  // beyond the last slot, of 64
  EXPECT_EQ(added[15], index_.find("name 15", 62));
  EXPECT_EQ(nullptr, index_.find("name 16", 62)) << "so that hashes chosen by a peer cost no time";
  EXPECT_EQ(added[16], index_.at(17));
}

TEST_F(SymbolIndexTest, KeepsEachNameAsItGrows) {
  std::vector<const SymbolName*> added;
  const auto text = [](size_t i) { return "name " + std::to_string(i); };
  for (size_t n = 0; n < 1500; ++n) {
    added.push_back(add(text(n), n * 3));
    // After the first, around each growth, and at the end.
    if ((n & (n + 1)) != 0 && (n & (n - 1)) != 0 && n != 1499) continue;
    for (size_t i = 0; i <= n; ++i) {
      ASSERT_EQ(added[i], index_.find(text(i), i * 3)) << "of " << n;
      ASSERT_EQ(added[i], index_.at(static_cast<uint32_t>(i + 1))) << "of " << n;
    }
  }
}

}  // namespace
