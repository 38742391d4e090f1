#include "vobject/extract_messages.h"

#include "proto/packet_frame_out.h"
#include "test/vobject/values.h"

using namespace VORN;
using namespace vorn_test;
using PROTO::PacketFrameIn;
using PROTO::proto_extract_messages;

namespace {

/// A frame that has arrived with this payload.
class Arrived : public PacketFrameIn {
 public:
  explicit Arrived(const std::string& payload_hex, bool twelve_bytes = false) {
    PROTO::PacketFrameOut out;
    out.set_use_12byte_header(twelve_bytes);
    out.reset();
    const std::string payload = from_hex(payload_hex);
    out.write_bytes(payload.data(), payload.size());
    out.compute_frame_header();
    reset();
    EXPECT_EQ(out.pos(), assemble(out.data().data(), out.pos(), 0));
    EXPECT_TRUE(have_complete_frame());
  }
};

TEST(ExtractMessages, AppendsEveryValueInOrder) {
  for (const bool twelve_bytes : {false, true}) {
    Arrived frame("81 07 01 61 0A 82 0B", twelve_bytes);
    VObjectVector messages{VObject("earlier")};
    proto_extract_messages(frame, messages);
    EXPECT_EQ((VObjectVector{VObject("earlier"), VObject(1), VObject("a"), vec({2})}), messages);
    EXPECT_EQ(frame.payload_end(), frame.pos());
    EXPECT_TRUE(frame.have_complete_frame());
  }
}

TEST(ExtractMessages, ReservesRoomForSmallBatches) {
  Arrived frame("00 00 00");
  VObjectVector messages;
  proto_extract_messages(frame, messages);
  EXPECT_EQ(3U, messages.size());
  for (const VObject& message : messages) EXPECT_EQ(DT_NIL, message.type());
  EXPECT_GE(messages.capacity(), 256U);
}

TEST(ExtractMessages, ReservesWhateverTheVectorHolds) {
  Arrived frame("00 00 00");
  for (const size_t room : {size_t{1}, size_t{2}, size_t{255}, size_t{256}, size_t{257}, size_t{1000}}) {
    VObjectVector messages;
    messages.reserve(room);
    messages.emplace_back("earlier");
    const VObject* const before = messages.data();
    proto_extract_messages(frame, messages);
    EXPECT_EQ(4U, messages.size());
    EXPECT_EQ(VObject("earlier"), messages[0]);
    if (room < 256) {
      EXPECT_GE(messages.capacity(), 256U) << room;
    } else {
      EXPECT_EQ(room, messages.capacity());
      EXPECT_EQ(before, messages.data()) << "no new storage";
    }
  }
}

TEST(ExtractMessages, OfAnEmptyPayloadDoesNothing) {
  Arrived frame("");
  frame.set_pos(3);
  VObjectVector messages;
  proto_extract_messages(frame, messages);
  EXPECT_TRUE(messages.empty());
  EXPECT_EQ(0U, messages.capacity());
  EXPECT_EQ(3U, frame.pos());
  messages.reserve(5);
  messages.emplace_back(1);
  proto_extract_messages(frame, messages);
  EXPECT_EQ(5U, messages.capacity());
  EXPECT_EQ(1U, messages.size());
}

TEST(ExtractMessages, TakesSymbolsAsStrings) {
  const uint32_t before = VObject::intern("before extraction");
  Arrived frame("06 02 7E 7E 08 06 02 7E 21 81 09");
  VObjectVector messages;
  proto_extract_messages(frame, messages);
  EXPECT_EQ((VObjectVector{VObject("~~"), hash({{"~!", 1}})}), messages);
  EXPECT_EQ(before + 1, VObject::intern("after extraction")) << "nothing was interned";
}

TEST(ExtractMessages, TwiceGivesEveryMessageTwice) {
  Arrived frame("81 82");
  VObjectVector messages;
  proto_extract_messages(frame, messages);
  proto_extract_messages(frame, messages);
  EXPECT_EQ((VObjectVector{1, 2, 1, 2}), messages);
}

TEST(ExtractMessages, NeedsACompleteFrame) {
  const char text[] = "proto_extract_messages: packetframe state must be have_complete_frame";
  VObjectVector messages;
  PacketFrameIn frame;
  EXPECT_FAILS(text, proto_extract_messages(frame, messages));
  frame.reset();
  EXPECT_FAILS(text, proto_extract_messages(frame, messages));
  const std::string part = from_hex("A5 01 00 01 00 00 00 02 81");
  frame.assemble(part.data(), part.size(), 0);
  EXPECT_FAILS(text, proto_extract_messages(frame, messages));
  EXPECT_EQ(0U, messages.capacity());
}

TEST(ExtractMessages, KeepsWhatCameBeforeABrokenMessage) {
  Arrived cut("81 0A 82");
  VObjectVector messages;
  EXPECT_FAILS("VObject::deserialize_array: buffer underrun", proto_extract_messages(cut, messages));
  EXPECT_EQ((VObjectVector{VObject(1), VObject()}), messages);
  EXPECT_EQ(cut.payload_end(), cut.pos());

  Arrived bad_key("81 0A 82 08 83 84 09 0B");
  messages.clear();
  EXPECT_FAILS("VObject::deserialize_hash: only hash keys of type string are supported",
               proto_extract_messages(bad_key, messages));
  EXPECT_EQ((VObjectVector{VObject(1), vec({2, hash({})})}), messages) << "partly built";
}

TEST(ExtractMessages, AllowsSixtyFourLevels) {
  std::string passes;
  for (int i = 0; i < 64; ++i) passes += "0A ";
  for (int i = 0; i < 64; ++i) passes += "0B ";
  Arrived frame(passes);
  VObjectVector messages;
  proto_extract_messages(frame, messages);
  EXPECT_EQ(1U, messages.size());
  Arrived deeper("0A " + passes + "0B");
  EXPECT_FAILS("VObject::deserialize: maxdepth exceeded", proto_extract_messages(deeper, messages));
}

TEST(ExtractMessages, OfManyMessages) {
  std::string payload;
  for (int i = 0; i < 1000; ++i) payload += "07 01 61 ";
  Arrived frame(payload);
  VObjectVector messages;
  proto_extract_messages(frame, messages);
  ASSERT_EQ(1000U, messages.size());
  EXPECT_EQ(VObject("a"), messages.back());
}

}  // namespace
