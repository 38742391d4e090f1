/// Values as JSON, losslessly.
#pragma once

#include <string_view>

#include "tools/inspect/value_writer.h"

namespace vorn_inspect {

/// Writes values as JSON without loss. nil, booleans, integers (all 64 bits) and doubles become their JSON
/// counterparts; a double always has a point or an exponent. Anything else is an object with one member, whose name
/// begins with a dollar sign:
///
///   {"$bytes": "c3ff"}                a string that is not UTF-8, as hexadecimal digits
///   {"$double": "7ff8000000000000"}   infinities and NaN, by their bits
///   {"$hash": [[KEY, VALUE], ...]}   a hash with a key that is not UTF-8 or begins with a dollar sign
///
/// Other hashes are objects. Non-ASCII characters are escaped if is_control() matches them.
class JsonValueWriter : public ValueWriter {
 public:
  explicit JsonValueWriter(Output& out) : ValueWriter(out, "null", ",") {}

 private:
  void write_double(double number) override;
  void write_string(std::string_view bytes) override;
  bool is_plain_key(std::string_view key) const override;
  const HashMarks& hash_marks(bool plain) const override;

  void write_characters(std::string_view utf8);
};

}  // namespace vorn_inspect
