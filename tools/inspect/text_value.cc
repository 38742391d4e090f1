#include "tools/inspect/text_value.h"

#include <string>

#include "vobject/render.h"
#include "vobject/vobject.h"

namespace vorn_inspect {

namespace {

constexpr size_t PIECE = 4096;
constexpr char DEL = '\x7f';
constexpr HashMarks MARKS{"{", "", "=>", "", "}"};

}  // namespace

void TextValueWriter::write_double(double number) {
  scratch_.clear();
  VORN::render(VORN::VObject(number), scratch_);
  out_.write(scratch_);
}

// In pieces: escaped control characters take four times their size.
void TextValueWriter::write_string(std::string_view bytes) {
  out_.write("\"");
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, PIECE);
    const std::string_view plain = piece.substr(0, piece.find(DEL));
    bytes.remove_prefix(plain.size());
    if (!plain.empty()) {
      scratch_.clear();
      VORN::escape_str(std::string(plain), scratch_, '\0');
      out_.write(scratch_);
    } else {
      out_.write("\\x7f");
      bytes.remove_prefix(1);
    }
  }
  out_.write("\"");
}

const HashMarks& TextValueWriter::hash_marks(bool) const {
  return MARKS;
}

}  // namespace vorn_inspect
