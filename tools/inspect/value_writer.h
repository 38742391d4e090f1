/// Writes values as text straight from their bytes. The only data built are the lists of entries of the open hashes:
/// a hash is written in the order of its keys, and of entries with the same key only the last.
#pragma once

#include <cstdint>
#include <deque>
#include <string_view>

#include "tools/inspect/message_reader.h"
#include "tools/inspect/output.h"

namespace vorn_inspect {

/// The text around the entries of a hash.
struct HashMarks {
  const char* open;
  const char* before_key;
  const char* between;
  const char* behind_value;
  const char* close;
};

class ValueWriter {
 public:
  virtual ~ValueWriter() = default;
  ValueWriter(const ValueWriter&) = delete;
  ValueWriter& operator=(const ValueWriter&) = delete;

  /// Throws std::bad_alloc, and like Output::write(). Each byte is read once for each hash that contains it, and
  /// twice more.
  void write(const EncodedValue& value);

 protected:
  ValueWriter(Output& out, const char* nil, const char* separator) : out_(out), nil_(nil), separator_(separator) {}

  virtual void write_double(double number) = 0;
  virtual void write_string(std::string_view bytes) = 0;
  virtual bool is_plain_key(std::string_view) const { return true; }
  /// `plain`: all keys are plain.
  virtual const HashMarks& hash_marks(bool plain) const = 0;

  Output& out_;

 private:
  /// 32 bits are enough: a value may be 2 GiB long, as a frame may.
  struct Entry {
    uint32_t key;  ///< offset of the key's bytes from the value's beginning
    uint32_t key_size;
    uint32_t value;
  };

  void write_next(VORN::PROTO::WireReader& in);
  void write_array(VORN::PROTO::WireReader& in);
  void write_hash(VORN::PROTO::WireReader& in);
  void write_entries(size_t first, const HashMarks& marks);
  std::string_view read_string(VORN::PROTO::WireReader& in) const;
  std::string_view key_of(const Entry& entry) const;

  const char* const nil_;
  const char* const separator_;
  StreamWindow* window_ = nullptr;
  uint64_t start_ = 0;  ///< index of the value in the window
  /// The entries of all open hashes, the innermost last. A deque, because a growing vector exists twice.
  std::deque<Entry> entries_;
};

}  // namespace vorn_inspect
