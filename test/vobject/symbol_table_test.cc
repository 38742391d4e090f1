#include "vobject/symbol_table.h"

#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;

namespace {

// The first names of this process, interned while the program's static objects are being made.
const uint32_t FIRST = VObject::intern("first");
const uint32_t AGAIN = VObject::intern("first");
const uint32_t SECOND = VObject::intern("second");

/// Uses the table at the very end too.
struct AtExit {
  ~AtExit() {
    if (VObject::intern("first") != FIRST || *VObject::sym_lookup(FIRST) != "first") abort();
  }
} at_exit;

TEST(SymbolTable, CountsFromOneEvenInStaticInitialisers) {
  EXPECT_EQ(1U, FIRST);
  EXPECT_EQ(1U, AGAIN);
  EXPECT_EQ(2U, SECOND);
}

TEST(SymbolTable, AKnownNameDoesNotAdvanceTheCounter) {
  const uint32_t a = VObject::intern("counter a");
  EXPECT_EQ(a, VObject::intern("counter a"));
  EXPECT_EQ(a, VObject::intern(std::string("counter a")));
  EXPECT_EQ(a, VObject::intern_string(string_ref("counter a")));
  EXPECT_EQ(a + 1, VObject::intern("counter b"));
}

TEST(SymbolTable, NamesMayHoldZeroBytesExceptAsTexts) {
  const uint32_t x = VObject::intern(std::string("zero\0x", 6));
  const uint32_t y = VObject::intern(std::string("zero\0y", 6));
  EXPECT_NE(x, y);
  EXPECT_EQ(VObject::intern("zero\0x"), VObject::intern("zero\0y"));
  VObject v("zero\0x", 6);
  EXPECT_EQ(x, static_cast<const VObject&>(v.intern()).intern());
  EXPECT_EQ(std::string("zero\0x", 6), *VObject::sym_lookup(x));
}

TEST(SymbolTable, TheEmptyNameIsAName) {
  EXPECT_EQ("", *VObject::sym_lookup(VObject::intern("")));
}

TEST(SymbolTable, NamesAreCopiedAndStay) {
  uint32_t id;
  {
    std::string name("transient name");
    id = VObject::intern(name);
    name[0] = 'X';
  }
  const VObjectString* const name = VObject::sym_lookup(id);
  for (int i = 0; i < 1000; ++i) VObject::intern("filler" + std::to_string(i));
  EXPECT_EQ(name, VObject::sym_lookup(id));
  EXPECT_EQ("transient name", *name);
}

TEST(SymbolTable, LookupRejectsWhatWasNeverGiven) {
  EXPECT_FAILS("VObject::sym_lookup: supplied symbol value not found in map", VObject::sym_lookup(0xFFFFFFF0));
  const uint32_t next = VObject::intern("last so far") + 1;
  for (int i = 0; i < 2; ++i) {  // the second time this thread has seen which ids there are
    EXPECT_FAILS("VObject::sym_lookup: supplied symbol value not found in map", VObject::sym_lookup(next));
  }
}

VObject forged_symbol(uint32_t id) {
  VObject v(id);
  force_tag(v, DT_SYMBOL);
  return v;
}

TEST(SymbolTable, RenderingAnUnknownIdLeavesAnEntryWithoutAName) {
  EXPECT_FAILS("VObject::sym_lookup: supplied symbol value not found in map", VObject::sym_lookup(0));
  EXPECT_EQ(":<ERROR>", rendered(forged_symbol(0)));
  EXPECT_EQ(nullptr, VObject::sym_lookup(0));
}

TEST(SymbolTable, WritingAnUnknownIdLeavesOneToo) {
  PROTO::PacketBuf buf;
  EXPECT_FAILS("VObject::serialize: internal error: SYMBOL symbal points to NULL symbol data",
               forged_symbol(0xFFFFFF00).serialize(buf, 64));
  EXPECT_EQ(0U, buf.pos());
  EXPECT_EQ(0U, buf.data().size());
  EXPECT_EQ(nullptr, VObject::sym_lookup(0xFFFFFF00));
}

TEST(SymbolTable, AskingForTheNameOfAnUnknownIdGivesTheEmptyString) {
  EXPECT_EQ("", forged_symbol(0xFFFFFF01).str_or_symbol_name());
  EXPECT_EQ(nullptr, VObject::sym_lookup(0xFFFFFF01));
}

TEST(SymbolTable, AnIdThatWasRenderedTooEarlyGetsItsNameLater) {
  const uint32_t next = VObject::intern("early") + 1;
  EXPECT_EQ(":<ERROR>", rendered(forged_symbol(next)));
  EXPECT_EQ(next, VObject::intern("late"));
  EXPECT_EQ(":late", rendered(forged_symbol(next)));
}

TEST(SymbolTable, MayBeUsedUnderItsLock) {
  const SymbolTable::Lock lock(SymbolTable::instance().symbol_table_lock());
  const uint32_t id = VObject::intern("under the lock");
  EXPECT_EQ("under the lock", *VObject::sym_lookup(id));
  EXPECT_EQ(":\"under the lock\"", rendered(forged_symbol(id)));
}

TEST(MemberIntern, TurnsAStringIntoASymbol) {
  VObject v("member");
  const VObject copy(v);
  EXPECT_EQ(&v, &v.intern());
  EXPECT_EQ(DT_SYMBOL, v.type());
  EXPECT_EQ("member", v.str_or_symbol_name());
  EXPECT_EQ("member", copy.getstr()) << "a sharer keeps its string";
  EXPECT_EQ(&v, &v.intern()) << "a symbol stays";
  EXPECT_EQ(VObject::intern("member"), static_cast<const VObject&>(v).intern());
}

TEST(MemberIntern, ConvertsTheReferent) {
  VObject r = make_ref("referent");
  EXPECT_EQ(r.getref().get(), &r.intern());
  EXPECT_EQ(DT_REF, r.type());
  EXPECT_EQ(DT_SYMBOL, r.get_ref_type());
}

TEST(MemberIntern, RejectsOtherKinds) {
  for (VObject v : {VObject(), VObject(1), VObject(1.5), VObject(true), VObject::new_hash(), VObject::new_vector(),
                    VObject(number(1)), make_ref(1)}) {
    const std::string before = rendered(v);
    EXPECT_FAILS("VObject::intern: data type not DT_SYMBOL or DT_STR", v.intern());
    EXPECT_EQ(before, rendered(v));
  }
}

}  // namespace
