#include "tools/inspect/value_writer.h"

#include <algorithm>
#include <string>

namespace vorn_inspect {

using namespace VORN::PROTO;

void ValueWriter::write(const EncodedValue& value) {
  window_ = &value.window;
  window_->select(value.offset, value.size);
  start_ = window_->pos();
  WireReader in(*window_);
  write_next(in);
}

void ValueWriter::write_next(WireReader& in) {
  const uint8_t type = in.peek();
  if (type >= PTT_INT) {
    int64_t number;
    in.read_int(number);
    out_.write(std::to_string(number));
    return;
  }
  in.skip(1);
  switch (type) {
    case PTT_FALSE: out_.write("false"); break;
    case PTT_TRUE: out_.write("true"); break;
    case PTT_FLOAT: {
      float number = 0;
      in.read_float(number);
      write_double(double{number});
      break;
    }
    case PTT_DOUBLE: {
      double number = 0;
      in.read_double(number);
      write_double(number);
      break;
    }
    case PTT_BINSTR:
    case PTT_SYMBOL:
    case PTT_UTF8STR: write_string(read_string(in)); break;
    case PTT_HASH_START: write_hash(in); break;
    case PTT_ARRAY_START: write_array(in); break;
    default: out_.write(nil_);
  }
}

void ValueWriter::write_array(WireReader& in) {
  const char* separator = "";
  out_.write("[");
  while (in.peek() != PTT_ARRAY_END) {
    out_.write(separator);
    write_next(in);
    separator = separator_;
  }
  in.skip(1);
  out_.write("]");
}

void ValueWriter::write_hash(WireReader& in) {
  const size_t first = entries_.size();
  bool plain = true;
  while (in.peek() != PTT_HASH_END) {
    in.skip(1);
    const std::string_view key = read_string(in);
    const auto behind_key = static_cast<uint32_t>(in.pos() - start_);
    const auto key_size = static_cast<uint32_t>(key.size());
    entries_.push_back({behind_key - key_size, key_size, behind_key});
    plain = plain && is_plain_key(key);
    skip_value(in);
  }
  in.skip(1);
  write_entries(first, hash_marks(plain));
  entries_.resize(first);
}

void ValueWriter::write_entries(size_t first, const HashMarks& marks) {
  const auto before = [this](const Entry& a, const Entry& b) {
    const int order = key_of(a).compare(key_of(b));
    return order != 0 ? order < 0 : a.key < b.key;
  };
  const auto begin = entries_.begin() + static_cast<std::ptrdiff_t>(first);
  if (!std::is_sorted(begin, entries_.end(), before)) std::sort(begin, entries_.end(), before);

  const size_t end = entries_.size();
  const char* separator = "";
  out_.write(marks.open);
  for (size_t i = first; i < end; ++i) {
    const Entry entry = entries_[i];
    if (i + 1 < end && key_of(entry) == key_of(entries_[i + 1])) continue;
    out_.write(separator);
    out_.write(marks.before_key);
    write_string(key_of(entry));
    out_.write(marks.between);
    window_->set_pos(start_ + entry.value);
    WireReader value(*window_);
    write_next(value);
    out_.write(marks.behind_value);
    separator = separator_;
  }
  out_.write(marks.close);
}

std::string_view ValueWriter::read_string(WireReader& in) const {
  uint32_t length;
  in.read_length(length);
  const std::string_view bytes(in.bytes(), length);
  in.skip(length);
  return bytes;
}

std::string_view ValueWriter::key_of(const Entry& entry) const {
  return {window_->data().data() + start_ + entry.key, entry.key_size};
}

}  // namespace vorn_inspect
