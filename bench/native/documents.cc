#include "bench/native/documents.h"

#include <random>

namespace bench {

using VORN::VObject;

namespace {

std::mt19937 engine(20240117);

int number(int below) {
  return static_cast<int>(engine() % static_cast<unsigned>(below));
}

std::string text(size_t length) {
  std::string s;
  while (s.size() < length) s.push_back(static_cast<char>('a' + number(26)));
  return s;
}

VObject small_request() {
  VObject params = VObject::new_hash();
  params.store("user", "u-20931");
  params.store("amount", 12.5);
  params.store("notify", true);
  VObject request = VObject::new_hash();
  request.store("id", 4711);
  request.store("method", "account.update");
  request.store("params", params);
  return request;
}

VObject records() {
  VObject all = VObject::new_vector();
  for (int i = 0; i < 1000; ++i) {
    VObject tags = VObject::new_vector();
    tags.append("alpha").append("beta");
    VObject record = VObject::new_hash();
    record.store("id", i);
    record.store("name", text(12));
    record.store("email", text(18));
    record.store("active", i % 2 == 1);
    record.store("score", number(1000) / 7.0);
    record.store("tags", tags);
    record.store("parent", VObject());
    all.append(record);
  }
  return all;
}

/// The same records by name, for what works on hashes.
VObject table(const VObject& records) {
  VObject all = VObject::new_hash();
  int i = 0;
  for (const VObject& record : records.getvec()) all.store(("record_" + std::to_string(i++)).c_str(), record);
  return all;
}

VObject doubles() {
  VObject all = VObject::new_vector();
  for (int i = 0; i < 110000; ++i) all.append(number(360000) / 999.0 - 180);
  return all;
}

VObject integers() {
  VObject all = VObject::new_vector();
  for (int i = 0; i < 20000; ++i) all.append(i % 2 == 0 ? number(128) : static_cast<int>(engine()) >> 1);
  return all;
}

VObject strings() {
  VObject all = VObject::new_vector();
  for (int i = 0; i < 5000; ++i) all.append(text(60));
  return all;
}

}  // namespace

const std::vector<Document>& documents() {
  static const VObject known = records();
  static const std::vector<Document> all = {{"small_request", small_request()},   {"1000_records", known},
                                            {"1000_named_records", table(known)}, {"110000_doubles", doubles()},
                                            {"20000_integers", integers()},       {"5000_strings", strings()}};
  return all;
}

}  // namespace bench
