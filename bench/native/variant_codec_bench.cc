/// Variants against nlohmann::json's MessagePack codec, msgpack-cxx with its variant and protobuf's Value, whose
/// numbers are all doubles, on the same trees. Every result is checked before it is timed. Output buffers are reused,
/// as a service would, where a name does not say _new.
#include <benchmark/benchmark.h>
#include <google/protobuf/arena.h>
#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/message_differencer.h>

#include <msgpack.hpp>
#include <nlohmann/json.hpp>
#include <string_view>

#include "bench/native/documents.h"
#include "proto/value_wire.h"
#include "vobject/render.h"

namespace {

using VORN::VObject;
using VORN::PROTO::DEFAULT_MAX_DEPTH;
using VORN::PROTO::PacketBuf;
using Msgpack = msgpack::type::variant;
using nlohmann::json;
using Protobuf = google::protobuf::Value;

/// A variant exposes its double only through its encoding.
double double_of(const VObject& v) {
  PacketBuf buf;
  v.serialize(buf, 1);
  buf.set_pos(1);
  double value = 0;
  VORN::PROTO::WireReader(buf).read_double(value);
  return value;
}

json to_json(const VObject& v) {
  switch (v.type()) {
    case VORN::DT_INT: return v.to_i64();
    case VORN::DT_DOUBLE: return double_of(v);
    case VORN::DT_BOOL: return v.to_bool();
    case VORN::DT_STR: return std::string(v.getstr());
    case VORN::DT_HASH: {
      json object = json::object();
      for (const auto& [key, value] : v.gethash()) object[std::string(key.view())] = to_json(value);
      return object;
    }
    case VORN::DT_VECTOR: {
      json array = json::array();
      for (const VObject& element : v.getvec()) array.push_back(to_json(element));
      return array;
    }
    default: return nullptr;
  }
}

Msgpack to_msgpack(const json& j) {
  switch (j.type()) {
    case json::value_t::number_integer: return Msgpack(j.get<int64_t>());
    case json::value_t::number_unsigned: return Msgpack(j.get<uint64_t>());
    case json::value_t::number_float: return Msgpack(j.get<double>());
    case json::value_t::boolean: return Msgpack(j.get<bool>());
    case json::value_t::string: return Msgpack(j.get<std::string>());
    case json::value_t::object: {
      std::multimap<Msgpack, Msgpack> map;
      for (const auto& [key, value] : j.items()) map.emplace(Msgpack(key), to_msgpack(value));
      return Msgpack(map);
    }
    case json::value_t::array: {
      std::vector<Msgpack> array;
      for (const json& element : j) array.push_back(to_msgpack(element));
      return Msgpack(array);
    }
    default: return Msgpack();
  }
}

void to_protobuf(const json& j, Protobuf& out) {
  switch (j.type()) {
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float: out.set_number_value(j.get<double>()); break;
    case json::value_t::boolean: out.set_bool_value(j.get<bool>()); break;
    case json::value_t::string: out.set_string_value(j.get<std::string>()); break;
    case json::value_t::object:
      for (const auto& [key, value] : j.items()) {
        to_protobuf(value, (*out.mutable_struct_value()->mutable_fields())[key]);
      }
      break;
    case json::value_t::array:
      out.mutable_list_value();
      for (const json& element : j) to_protobuf(element, *out.mutable_list_value()->add_values());
      break;
    default: out.set_null_value(google::protobuf::NULL_VALUE);
  }
}

Protobuf to_protobuf(const VObject& v) {
  Protobuf out;
  to_protobuf(to_json(v), out);
  return out;
}

void encode_vorn(benchmark::State& state, const VObject& value) {
  PacketBuf buf;
  value.serialize(buf, DEFAULT_MAX_DEPTH);
  for (auto _ : state) {
    buf.reset();
    value.serialize(buf, DEFAULT_MAX_DEPTH);
    benchmark::DoNotOptimize(buf.data().data());
  }
}

/// A new buffer for each message.
void encode_new_vorn(benchmark::State& state, const VObject& value) {
  for (auto _ : state) {
    PacketBuf buf;
    value.serialize(buf, DEFAULT_MAX_DEPTH);
    benchmark::DoNotOptimize(buf.data().data());
  }
}

void encode_new_nlohmann(benchmark::State& state, const VObject& value) {
  const json j = to_json(value);
  for (auto _ : state) {
    const std::vector<uint8_t> bytes = json::to_msgpack(j);
    benchmark::DoNotOptimize(bytes.data());
  }
}

void encode_new_msgpack(benchmark::State& state, const VObject& value) {
  const Msgpack v = to_msgpack(to_json(value));
  for (auto _ : state) {
    msgpack::sbuffer bytes;
    msgpack::pack(bytes, v);
    benchmark::DoNotOptimize(bytes.data());
  }
}

void encode_new_protobuf(benchmark::State& state, const VObject& value) {
  const Protobuf v = to_protobuf(value);
  for (auto _ : state) {
    const std::string bytes = v.SerializeAsString();
    benchmark::DoNotOptimize(bytes.data());
  }
}

/// The text of a value: ours for logs, the peers' are JSON.
void render_vorn(benchmark::State& state, const VObject& value) {
  for (auto _ : state) {
    std::string out;
    VORN::render(value, out);
    benchmark::DoNotOptimize(out.data());
  }
}

void render_nlohmann(benchmark::State& state, const VObject& value) {
  const json j = to_json(value);
  for (auto _ : state) {
    const std::string out = j.dump();
    benchmark::DoNotOptimize(out.data());
  }
}

void render_protobuf(benchmark::State& state, const VObject& value) {
  const Protobuf v = to_protobuf(value);
  for (auto _ : state) {
    std::string out;
    if (!google::protobuf::util::MessageToJsonString(v, &out).ok()) state.SkipWithError("no text");
    benchmark::DoNotOptimize(out.data());
  }
}

/// The value with every tenth of its members changed, if it is a hash of hashes.
VObject changed(const VObject& value) {
  VObject other;
  deep_copy(value, other);
  int i = 0;
  for (auto& [key, member] : other.gethash()) {
    if (i++ % 10 == 0) member.store("name", "another");
  }
  return other;
}

void diff_vorn(benchmark::State& state, const VObject& value) {
  const VObject other = changed(value);
  VObject patch;
  VObject::diff(value, patch, other, VORN::DT_NIL, 0);
  VObject again;
  if (!(deep_copy(value, again).merge(patch) == other)) state.SkipWithError("not a patch");
  for (auto _ : state) {
    VObject out;
    VObject::diff(value, out, other, VORN::DT_NIL, 0);
    benchmark::DoNotOptimize(out);
  }
}

void diff_nlohmann(benchmark::State& state, const VObject& value) {
  const json j = to_json(value);
  const json other = to_json(changed(value));
  if (j.patch(json::diff(j, other)) != other) state.SkipWithError("not a patch");
  for (auto _ : state) {
    json out = json::diff(j, other);
    benchmark::DoNotOptimize(out);
  }
}

/// All members again, into a value that has them.
void merge_vorn(benchmark::State& state, const VObject& value) {
  const VObject other = changed(value);
  VObject to;
  deep_copy(value, to);
  if (!(to.merge(other) == other)) state.SkipWithError("not merged");
  for (auto _ : state) {
    to.merge(other);
    benchmark::ClobberMemory();
  }
}

void merge_nlohmann(benchmark::State& state, const VObject& value) {
  const json other = to_json(changed(value));
  json to = to_json(value);
  for (int i = 0; i < 2; ++i) to.update(other, true);
  if (to != other) state.SkipWithError("not merged");
  for (auto _ : state) {
    to.update(other, true);
    benchmark::ClobberMemory();
  }
}

void decode_vorn(benchmark::State& state, const VObject& value) {
  PacketBuf buf;
  value.serialize(buf, DEFAULT_MAX_DEPTH);
  const uint64_t end = buf.pos();
  VObject again;
  buf.set_pos(0);
  VObject::deserialize(buf, end, again, true, DEFAULT_MAX_DEPTH);
  if (!(again == value)) state.SkipWithError("not the same value");
  for (auto _ : state) {
    VObject out;
    buf.set_pos(0);
    VObject::deserialize(buf, end, out, true, DEFAULT_MAX_DEPTH);
    benchmark::DoNotOptimize(out);
  }
}

void encode_nlohmann(benchmark::State& state, const VObject& value) {
  const json j = to_json(value);
  std::vector<uint8_t> bytes;
  for (auto _ : state) {
    bytes.clear();
    json::to_msgpack(j, bytes);
    benchmark::DoNotOptimize(bytes.data());
  }
}

void decode_nlohmann(benchmark::State& state, const VObject& value) {
  const json j = to_json(value);
  const std::vector<uint8_t> bytes = json::to_msgpack(j);
  if (json::from_msgpack(bytes) != j) state.SkipWithError("not the same value");
  for (auto _ : state) {
    json out = json::from_msgpack(bytes);
    benchmark::DoNotOptimize(out);
  }
}

void encode_msgpack(benchmark::State& state, const VObject& value) {
  const Msgpack v = to_msgpack(to_json(value));
  msgpack::sbuffer bytes;
  for (auto _ : state) {
    bytes.clear();
    msgpack::pack(bytes, v);
    benchmark::DoNotOptimize(bytes.data());
  }
}

void decode_msgpack(benchmark::State& state, const VObject& value) {
  const Msgpack v = to_msgpack(to_json(value));
  msgpack::sbuffer bytes;
  msgpack::pack(bytes, v);
  // Compared as bytes: integers come back with another type.
  msgpack::sbuffer again;
  msgpack::pack(again, msgpack::unpack(bytes.data(), bytes.size()).get().as<Msgpack>());
  if (std::string_view(again.data(), again.size()) != std::string_view(bytes.data(), bytes.size())) {
    state.SkipWithError("not the same value");
  }
  for (auto _ : state) {
    Msgpack out = msgpack::unpack(bytes.data(), bytes.size()).get().as<Msgpack>();
    benchmark::DoNotOptimize(out);
  }
}

void encode_protobuf(benchmark::State& state, const VObject& value) {
  const Protobuf v = to_protobuf(value);
  std::string bytes;
  for (auto _ : state) {
    v.SerializeToString(&bytes);
    benchmark::DoNotOptimize(bytes.data());
  }
}

void decode_protobuf(benchmark::State& state, const VObject& value) {
  const Protobuf v = to_protobuf(value);
  const std::string bytes = v.SerializeAsString();
  Protobuf again;
  if (!again.ParseFromString(bytes) || !google::protobuf::util::MessageDifferencer::Equals(v, again)) {
    state.SkipWithError("not the same value");
  }
  for (auto _ : state) {
    Protobuf out;
    out.ParseFromString(bytes);
    benchmark::DoNotOptimize(out);
  }
}

/// The same into memory that is freed as a whole.
void decode_protobuf_arena(benchmark::State& state, const VObject& value) {
  const std::string bytes = to_protobuf(value).SerializeAsString();
  for (auto _ : state) {
    google::protobuf::Arena arena;
    auto* out = google::protobuf::Arena::CreateMessage<Protobuf>(&arena);
    out->ParseFromString(bytes);
    benchmark::DoNotOptimize(*out);
  }
}

const bool registered = [] {
  for (const bench::Document& document : bench::documents()) {
    const auto add = [&](const char* name, auto body) {
      const VObject& value = document.value;
      benchmark::RegisterBenchmark((name + ("/" + document.name)).c_str(), [&value, body](benchmark::State& state) {
        body(state, value);
      })->Unit(benchmark::kMicrosecond);
    };
    if (document.value.type() == VORN::DT_HASH && document.name != "small_request") {
      add("diff/vorn", diff_vorn);
      add("diff/nlohmann", diff_nlohmann);
      add("merge/vorn", merge_vorn);
      add("merge/nlohmann", merge_nlohmann);
      continue;
    }
    add("encode/vorn", encode_vorn);
    add("encode/nlohmann", encode_nlohmann);
    add("encode/msgpack", encode_msgpack);
    add("encode/protobuf", encode_protobuf);
    add("encode_new/vorn", encode_new_vorn);
    add("encode_new/nlohmann", encode_new_nlohmann);
    add("encode_new/msgpack", encode_new_msgpack);
    add("encode_new/protobuf", encode_new_protobuf);
    add("render/vorn", render_vorn);
    add("render/nlohmann", render_nlohmann);
    add("render/protobuf", render_protobuf);
    add("decode/vorn", decode_vorn);
    add("decode/nlohmann", decode_nlohmann);
    add("decode/msgpack", decode_msgpack);
    add("decode/protobuf", decode_protobuf);
    add("decode/arena", decode_protobuf_arena);
  }
  return true;
}();

}  // namespace
