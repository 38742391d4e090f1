/// Values as text for people: the same as VORN::render(), except that DEL is `\x7f` here.
#pragma once

#include "tools/inspect/value_writer.h"

namespace vorn_inspect {

class TextValueWriter : public ValueWriter {
 public:
  explicit TextValueWriter(Output& out) : ValueWriter(out, "nil", ", ") {}

 private:
  void write_double(double number) override;
  void write_string(std::string_view bytes) override;
  const HashMarks& hash_marks(bool plain) const override;

  std::string scratch_;
};

}  // namespace vorn_inspect
