// A program that uses the installed library: a message makes a round trip through a frame, and errors are caught by the
// classes that the headers declare.

#include <cstdint>
#include <iostream>
#include <string>

#include "packing/packing.h"
#include "proto/packet_frame_in.h"
#include "proto/packet_frame_out.h"
#include "proto/value_wire.h"
#include "proto/vorn_exception.h"
#include "proto/vorn_proto_exception.h"
#include "proto/vorn_runtime_error.h"
#include "stream/stream_decoder.h"
#include "stream/stream_encoder.h"
#include "vobject/extract_messages.h"
#include "vobject/render.h"
#include "vobject/vobject.h"

using namespace VORN::PROTO;

namespace {

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "consumer: failed: " << what << '\n';
  ++failures;
}

void assemble(PacketFrameIn& in, const PacketFrameOut& out) {
  in.reset();
  const uint64_t consumed = in.assemble(out.data().data(), out.pos(), 0);
  expect(consumed == out.pos(), "the frame is consumed whole");
  expect(in.have_complete_frame(), "the frame is complete");
}

void primitives_make_the_round_trip() {
  PacketFrameOut out;
  out.set_use_12byte_header(true);
  out.set_next_seq(7);
  out.reset();
  write_type(out, PTT_ARRAY_START);
  write_int(out, INT64_MIN);
  write_double(out, 1.5);
  write_utf8str(out, "abc", 3);
  write_type(out, PTT_ARRAY_END);
  out.compute_frame_header();

  PacketFrameIn in;
  assemble(in, out);
  expect(in.seq() == 7, "the sequence number arrives");
  in.set_pos(in.payload_start());
  WireReader reader(in);
  ArrayCounts counts;
  const ValueFault fault = check_value(reader, {64, in.payload_end(), in.payload_end()}, counts);
  expect(fault == ValueFault::none, "the value is whole");
  expect(counts.next() == 3, "the array has three members");
  reader = WireReader(in);
  reader.skip(1);
  int64_t number = 0;
  expect(reader.read_int(number) && number == INT64_MIN, "the integer arrives");
}

void failures_are_caught_by_class() {
  PacketFrameOut out;
  try {
    out.compute_frame_header();
    expect(false, "a position inside the header is refused");
  } catch (const VORN::VornRuntimeError& e) {
    expect(std::string(e.what()).find("data pos inside header") != std::string::npos, "the text arrives");
  }
  out.set_pos(1ULL << 40);
  try {
    out.compute_frame_header();
    expect(false, "a payload that is too long is refused");
  } catch (const VornProtoException&) {
  }
  try {
    throw VornProtoException("x");
  } catch (const VORN::VornException&) {
  }
}

void variants_make_the_round_trip() {
  VORN::VObject message = VORN::VObject::new_hash();
  message.store("id", VORN::VObject(42));
  PacketFrameOut out;
  out.reset();
  message.serialize(out, 64);
  out.compute_frame_header();

  PacketFrameIn in;
  assemble(in, out);
  std::vector<VORN::VObject> messages;
  proto_extract_messages(in, messages);
  expect(messages.size() == 1 && messages[0] == message, "the variant arrives");
  std::string text;
  VORN::render(messages.at(0), text);
  expect(text.find("42") != std::string::npos, "the variant is rendered");
  try {
    messages.at(0).getvec();
    expect(false, "a hash is no vector");
  } catch (const VORN::VornRuntimeError&) {
  }
}

void streams_make_the_round_trip() {
  VORN::STREAM::StreamEncoder encoder;
  VORN::STREAM::StreamDecoder decoder;
  std::vector<VORN::VObject> messages;
  decoder.feed(encoder.frame(VORN::VObject("text")),
               [&](VORN::STREAM::StreamFrame& frame) { messages = frame.messages; });
  expect(messages == std::vector<VORN::VObject>{VORN::VObject("text")}, "the message arrives");
  try {
    decoder.feed("?", [](VORN::STREAM::StreamFrame&) {});
    expect(false, "damage is refused");
  } catch (const VORN::STREAM::DamagedStream& e) {
    expect(e.offset() == 14, "at its place");
  }
}

struct Order {
  int64_t id;
  VORN::PACKING::Decimal price;
  bool operator==(const Order& other) const { return id == other.id && price == other.price; }
};

void types_make_the_round_trip() {
  using namespace VORN::PACKING;
  Packing packing{ReadyMade::decimal, ReadyMade::date};
  packing.structure("order", &Order::id, &Order::price);
  const VORN::VObject value(VORN::VObjectVector{variant_of(Order{7, Decimal("12.50")}), variant_of(Date{2024, 2, 29})});
  const VORN::VObject back = packing.unpack(packing.pack(value));
  expect(back == value, "objects of the program's types and of the library's arrive");
  expect(get<Order>(back.getvec().at(0)).id == 7, "a struct is found");
  expect(get_if<Date>(back.getvec().at(1)) != nullptr, "a day that the library has made is found");
  const char* caught = "";
  try {
    packing.unpack(VORN::VObject::new_hash().store("~order", 1));
  } catch (const Malformed&) {
    caught = "Malformed";
  } catch (const std::exception&) {
  }
  expect(std::string(caught) == "Malformed", "what is no struct is refused");
  try {
    packing.unpack(VORN::VObject::new_hash().store("~none", 1));
  } catch (const UnknownType&) {
    caught = "UnknownType";
  } catch (const std::exception&) {
  }
  expect(std::string(caught) == "UnknownType", "an unknown tag is refused");
}

}  // namespace

int main() {
  primitives_make_the_round_trip();
  failures_are_caught_by_class();
  variants_make_the_round_trip();
  streams_make_the_round_trip();
  types_make_the_round_trip();
  std::cout << (failures == 0 ? "frames, values, variants and types work\n" : "");
  return failures == 0 ? 0 : 1;
}
