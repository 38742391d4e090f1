/// Every public operation with its n-th allocation failing, for every n until it succeeds: it does its work
/// or throws std::bad_alloc, and what it leaves behind can be used and ended without a leak.
#include <stdexcept>

#include "proto/packet_frame_out.h"
#include "test/support/allocations.h"
#include "test/vobject/values.h"
#include "vobject/extract_messages.h"

using namespace VORN;
using namespace vorn_test;

namespace {

const char LONG_TEXT[] = "a text that is too long for any small string's own storage";
const char LONG_KEY[] = "a key that is too long for any small string's own storage";

/// What the operations work on.
struct Subject {
  Subject()
      : v(vec({LONG_TEXT, hash({{LONG_KEY, vec({1, 2})}, {"k", LONG_TEXT}}), 3})),
        other(vec({"x", hash({{LONG_KEY, vec({1, 5, 6})}, {"new", hash({{"n", LONG_TEXT}})}}), 4, 5})),
        text(LONG_TEXT),
        referent(boost::make_shared<VObject>(LONG_TEXT)) {
    ref = referent;
  }
  VObject v;
  VObject other;
  VObject ref;
  std::string text;
  boost::shared_ptr<VObject> referent;
  PROTO::PacketBuf buf;
};

/// `operation` takes a Subject; `unchanged`: a failure leaves its values as they were. `keeps`: blocks that
/// stay when it succeeds.
template <typename Operation>
void check(const char* name, Operation operation, bool unchanged = true, int64_t keeps = 0) {
  SCOPED_TRACE(name);
  // A first run makes the allocations that a process makes once.
  for (uint64_t nth = 1;; ++nth) {
    ASSERT_LT(nth, 1000U);
    bool threw = false;
    bool failed = false;
    const int64_t before = live_allocations();
    {
      Subject s;
      const std::string v = rendered(s.v) + rendered(s.other) + rendered(s.ref);
      {
        const FailAllocation failure(nth);
        try {
          operation(s);
        } catch (const std::bad_alloc&) {
          threw = true;
        }
        failed = failure.failed();
      }
      ASSERT_EQ(failed, threw) << "allocation " << nth;
      const std::string now = rendered(s.v) + rendered(s.other) + rendered(s.ref);
      if (threw && unchanged) {
        ASSERT_EQ(v, now) << "allocation " << nth;
      }
      ASSERT_LE(s.buf.pos(), s.buf.data().size());
    }
    ASSERT_EQ(before + (threw ? 0 : keeps), live_allocations()) << "allocation " << nth;
    if (!threw) {
      ASSERT_GT(nth, 1U) << "nothing was allocated, so nothing was tested";
      return;
    }
  }
}

TEST(AllocationFailure, Construction) {
  check("text", [](Subject&) { VObject v(LONG_TEXT); });
  check("bytes", [](Subject&) { VObject v(LONG_TEXT, 30); });
  check("string", [](Subject& s) { VObject v(s.text); });
  check("string class", [](Subject& s) { VObject v(s.referent->getstr()); });
  check("elements", [](Subject& s) { VObject v(s.v.getvec()); });
  check("hash", [](Subject&) { VObject::new_hash(); });
  check("vector", [](Subject&) { VObject::new_vector(10); });
}

TEST(AllocationFailure, Setters) {
  check("text", [](Subject& s) { s.v = LONG_TEXT; });
  check("string", [](Subject& s) { s.v = s.text; });
  check("text through a reference", [](Subject& s) { s.ref = "another text, also too long to be stored in place"; });
  check("elements", [](Subject& s) { s.v = s.other.getvec(); });
  check("own elements", [](Subject& s) { s.v = s.v.getvec(); });
  check("reset_hash", [](Subject& s) { s.v.reset_hash(); });
  check("reset_vector", [](Subject& s) { s.ref.reset_vector(10); });
  check("reset_vector of a vector", [](Subject& s) { s.v.reset_vector(100); });
}

TEST(AllocationFailure, Containers) {
  check("fetch", [](Subject& s) { s.v.at(1).fetch("missing, with a long key that needs its own storage"); });
  check("store", [](Subject& s) { s.v.at(1).store("missing, with a long key that needs its own storage", s.other); });
  check("append", [](Subject& s) { s.v.append(s.other); });
  check("append many", [](Subject& s) { s.v.append(s.other.getvec()); });
  check("append itself", [](Subject& s) { s.v.append(s.v.getvec()); });
}

TEST(AllocationFailure, MergeAndDiff) {
  check(
      "merge", [](Subject& s) { s.v.merge(s.other); }, false);
  check("diff", [](Subject& s) {
    VObject out;
    VObject::diff(s.v, out, s.other, DT_NIL, 0);
  });
}

/// A merge that fails is incomplete, and merging again completes it.
TEST(AllocationFailure, AMergeCanBeTakenUpAgain) {
  Subject whole;
  const std::string expected = rendered(whole.v.merge(whole.other));
  for (uint64_t nth = 1;; ++nth) {
    ASSERT_LT(nth, 100U);
    Subject s;
    const std::string source = rendered(s.other);
    bool failed = false;
    {
      const FailAllocation failure(nth);
      try {
        s.v.merge(s.other);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    }
    EXPECT_EQ(source, rendered(s.other));
    EXPECT_EQ(expected, rendered(s.v.merge(s.other))) << "allocation " << nth;
    if (!failed) break;
  }
}

TEST(AllocationFailure, DiffIntoAValueLeavesBothSourcesAndNil) {
  for (uint64_t nth = 1;; ++nth) {
    ASSERT_LT(nth, 100U);
    Subject s;
    const std::string before = rendered(s.v) + rendered(s.other);
    bool failed = false;
    {
      const FailAllocation failure(nth);
      try {
        VObject::diff(s.v, s.ref, s.other, DT_NIL, 0);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    }
    EXPECT_EQ(before, rendered(s.v) + rendered(s.other));
    ASSERT_EQ(DT_REF, s.ref.type());
    EXPECT_EQ(failed ? DT_NIL : DT_VECTOR, s.referent->type()) << rendered(s.ref);
    if (!failed) break;
  }
}

TEST(AllocationFailure, Codec) {
  check("serialize", [](Subject& s) {
    const VObject large(std::string(100000, 'x'));
    s.buf.write_byte(0);
    large.serialize(s.buf, 64);
  });
  check("deep_copy", [](Subject& s) {
    VObject out;
    deep_copy(s.v, out);
  });
  check(
      "deep_copy onto a value", [](Subject& s) { deep_copy(s.v, s.other); }, false);
}

TEST(AllocationFailure, SerializeLeavesTheBufferConsistent) {
  for (uint64_t nth = 1;; ++nth) {
    PROTO::PacketBuf buf;
    const VObject v = vec({1, std::string(100000, 'x'), 2});
    bool threw = false;
    {
      const FailAllocation failure(nth);
      try {
        v.serialize(buf, 64);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
    }
    if (!threw) break;
    EXPECT_EQ("0A 81", to_hex(buf.data()));
    EXPECT_EQ(2U, buf.pos());
  }
}

TEST(AllocationFailure, DeserializeLeavesAUsableValueAndAPosition) {
  // More arrays than the counts hold in place, more levels than the checking pass holds in place.
  VObject v = hash({{LONG_KEY, LONG_TEXT}, {"b", vec({1, 2, 3})}, {"a", hash({{"x", 1.5}})}});
  for (int i = 0; i < 70; ++i) v = vec({VObject(v), vec({i})});
  PROTO::PacketBuf source;
  v.serialize(source, 1000);
  const uint64_t end = source.pos();
  for (uint64_t nth = 1;; ++nth) {
    ASSERT_LT(nth, 2000U);
    bool threw = false;
    const int64_t before = live_allocations();
    {
      VObject out("old text, which is too long to be stored in place");
      source.set_pos(0);
      {
        const FailAllocation failure(nth);
        try {
          VObject::deserialize(source, end, out, false, 1000);
        } catch (const std::bad_alloc&) {
          threw = true;
        }
        ASSERT_EQ(failure.failed(), threw);
      }
      ASSERT_LE(source.pos(), end);
      std::string text;
      render(out, text);
      if (!threw) {
        ASSERT_EQ(v, out);
      }
    }
    ASSERT_EQ(before, live_allocations());
    if (!threw) break;
  }
}

TEST(AllocationFailure, Rendering) {
  check("render", [](Subject& s) {
    std::string out;
    render(s.v, out);
    render(s.ref, out);
    render(1e300, out);
  });
  Subject whole;
  const std::string expected = "before " + rendered(whole.v);
  check("render behind other text", [&expected](Subject& s) {
    std::string out("before ");
    try {
      render(s.v, out);
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(expected.substr(0, out.size()), out);
      EXPECT_LE(7U, out.size());
      throw;
    }
  });
  check("escape_str", [](Subject& s) {
    std::string out;
    escape_str(s.text, out, '"');
    escape_str(s.text, s.text, '"');
  });
}

TEST(AllocationFailure, ExtractMessages) {
  PROTO::PacketFrameOut out;
  out.reset();
  Subject().v.serialize(out, 64);
  Subject().other.serialize(out, 64);
  out.compute_frame_header();
  PROTO::PacketFrameIn frame;
  frame.reset();
  frame.assemble(out.data().data(), out.pos(), 0);
  ASSERT_TRUE(frame.have_complete_frame());
  check("proto_extract_messages", [&frame](Subject&) {
    VObjectVector messages;
    PROTO::proto_extract_messages(frame, messages);
  });
}

/// More than any container holds is std::length_error, and nothing has changed. The sizes are volatile, or the
/// compiler would warn of them.
TEST(LengthError, LeavesValuesAsTheyWere) {
  const volatile size_t largest = SIZE_MAX;
  const volatile size_t too_many = VObjectVector().max_size() + 1;
  const VObject other_kind(LONG_TEXT);
  for (const size_t n : {size_t{too_many}, size_t{largest}}) {
    const int64_t before = live_allocations();
    EXPECT_THROW(VObject::new_vector(n), std::length_error);
    EXPECT_EQ(before, live_allocations());
    Subject s;
    const std::string values = rendered(s.v) + rendered(s.ref);
    const void* const storage = storage_of(s.v);
    EXPECT_THROW(s.v.reset_vector(n), std::length_error);
    EXPECT_THROW(s.ref.reset_vector(n), std::length_error);
    EXPECT_EQ(values, rendered(s.v) + rendered(s.ref));
    EXPECT_EQ(storage, storage_of(s.v));
  }
  EXPECT_THROW(VObject("text", largest), std::length_error);
}

/// max_size() elements are more than the machine has memory for.
TEST(LengthError, IsBadAllocWithinTheMaximum) {
  const LimitAllocations limit(1 << 20);
  const size_t most = VObjectVector().max_size();
  EXPECT_THROW(VObject::new_vector(most), std::bad_alloc);
  Subject s;
  const std::string values = rendered(s.v) + rendered(s.ref);
  EXPECT_THROW(s.v.reset_vector(most), std::bad_alloc);
  EXPECT_THROW(s.ref.reset_vector(most), std::bad_alloc);
  EXPECT_EQ(values, rendered(s.v) + rendered(s.ref));
}

TEST(AllocationFailure, ExtractMessagesBehindEarlierOnes) {
  PROTO::PacketFrameOut out;
  out.reset();
  Subject().v.serialize(out, 64);
  VObject(LONG_TEXT).serialize(out, 64);
  out.compute_frame_header();
  PROTO::PacketFrameIn frame;
  frame.reset();
  frame.assemble(out.data().data(), out.pos(), 0);
  ASSERT_TRUE(frame.have_complete_frame());
  for (uint64_t nth = 1;; ++nth) {
    ASSERT_LT(nth, 100U);
    VObjectVector messages{VObject(LONG_TEXT)};
    frame.set_pos(0);
    bool failed = false;
    {
      const FailAllocation failure(nth);
      try {
        PROTO::proto_extract_messages(frame, messages);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    }
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(VObject(LONG_TEXT), messages[0]);
    if (nth == 1) {
      EXPECT_EQ(1U, messages.size()) << "no room could be had";
      EXPECT_EQ(0U, frame.pos());
    }
    if (messages.size() > 2) {
      EXPECT_EQ(Subject().v, messages[1]);
    }
    if (!failed) {
      EXPECT_EQ(3U, messages.size());
      break;
    }
  }
}

TEST(AllocationFailure, InterningLeavesTheTableAsItWas) {
  for (int i = 0; i < 40; ++i) {  // growth of the table's buckets is met on the way
    const std::string name = "a symbol's name that is rather long, number " + std::to_string(i);
    const uint32_t last = VObject::intern("last before " + std::to_string(i));
    for (uint64_t nth = 1;; ++nth) {
      VObject v(name);
      bool threw = false;
      const int64_t before = live_allocations();
      {
        const FailAllocation failure(nth);
        try {
          v.intern();
        } catch (const std::bad_alloc&) {
          threw = true;
        }
        ASSERT_EQ(failure.failed(), threw);
      }
      if (!threw) {
        ASSERT_EQ(last + 1, VObject::intern(name)) << "no id was lost";
        ASSERT_EQ(name, *VObject::sym_lookup(last + 1));
        break;
      }
      ASSERT_EQ(before, live_allocations());
      ASSERT_EQ(DT_STR, v.type());
      ASSERT_THROW(VObject::sym_lookup(last + 1), VornRuntimeError);
    }
  }
}

TEST(AllocationFailure, NamesOfUnknownIds) {
  uint32_t id = 0xFFFF0000;
  for (uint64_t nth = 1; nth <= 2; ++nth) {
    VObject symbol(id++);
    force_tag(symbol, DT_SYMBOL);
    const FailAllocation failure(nth);
    try {
      symbol.str_or_symbol_name();
      EXPECT_FALSE(failure.failed());
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(failure.failed());
    }
  }
}

TEST(AllocationFree, CopyingMovingAndAssigning) {
  Subject s;
  const AllocationCount allocations;
  VObject copy(s.v);
  copy = s.other;
  VObject moved(std::move(copy));
  moved = 1;
  moved = 1.5;
  moved = true;
  moved = s.referent;
  moved = VObject();
  s.v = s.v.at(0);
  s.ref.unref();
  s.other.reset_vector(4);
  s.other.set_nil();
  EXPECT_EQ(0U, allocations.count());
}

TEST(AllocationFree, ComparingAndReading) {
  Subject s;
  const AllocationCount allocations;
  EXPECT_FALSE(s.v == s.other);
  EXPECT_TRUE(s.v.to_bool());
  EXPECT_EQ(0, s.ref.to_i64());
  EXPECT_TRUE(s.v.at(1).has_key(LONG_KEY));
  EXPECT_EQ(0U, allocations.count());
}

}  // namespace
