/// A second model of variants, to hold the library against: plain, slow, and without any code of vobject/.
/// Values are cells; copies of a cell have its contents in common. Nothing is freed before the model is, so a
/// cycle is harmless here, and is_sound() finds it before the library is asked to build it.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "proto/vorn_runtime_error.h"
#include "vobject/data_types.h"

namespace vorn_fuzz {

class Model {
 public:
  struct Contents;

  struct Cell {
    uint8_t tag = VORN::DT_NIL;
    uint64_t word = 0;             ///< integer, the bits of a double, boolean
    Contents* contents = nullptr;  ///< from DT_SYMBOL to DT_UDT; null for a user-defined value that holds no object
    Cell* referent = nullptr;
    unsigned walk = 0;  ///< the last one that came by, and what it found
    unsigned weight = 0;
  };

  struct Contents {
    std::string bytes;  ///< of a string; the name of a symbol; what a user-defined object is known by
    std::map<std::string, Cell*> members;
    std::vector<Cell*> elements;
  };

  /// What ends the operation that would build a cycle, or go on for too long.
  struct Unsound : std::runtime_error {
    Unsound() : std::runtime_error("unsound") {}
  };

  static double double_of(uint64_t word) {
    double value;
    std::memcpy(&value, &word, sizeof value);
    return value;
  }
  static uint64_t word_of(double value) {
    uint64_t word;
    std::memcpy(&word, &value, sizeof word);
    return word;
  }

  Cell* make() { return &cells_.emplace_back(); }
  Cell* make(const Cell& copied) { return &cells_.emplace_back(copied); }

  Cell* make(uint8_t tag, const std::string& bytes = "") {
    contents_.push_back({bytes, {}, {}});
    return make({tag, 0, &contents_.back(), nullptr});
  }

  Cell* make_vector(const std::vector<Cell*>& elements) {
    Cell* const made = make(VORN::DT_VECTOR);
    for (const Cell* const element : elements) made->contents->elements.push_back(make(*element));
    return made;
  }

  /// Whether no cell holds itself, and none is too large to walk. Cells that are gone count too: an unreachable
  /// cycle is a leak all the same.
  bool is_sound() {
    ++walk_;
    for (Cell& c : cells_) {
      if (weight(c) >= TOO_MUCH) return false;
    }
    return true;
  }

  static Cell* target(Cell* c) {
    while (c->tag == VORN::DT_REF) c = c->referent;
    return c;
  }
  static const Cell* target(const Cell* c) { return target(const_cast<Cell*>(c)); }

  /// The cell that an assignment overwrites; null if nothing happens.
  static Cell* assigned(Cell* dst, const Cell* src) {
    if (dst == src) return nullptr;
    if (src->tag <= VORN::DT_SYMBOL || src->tag == VORN::DT_REF) return dst;
    while (dst->tag == VORN::DT_REF) {
      dst = dst->referent;
      if (dst == src) return nullptr;
    }
    return dst;
  }

  static void assign(Cell* dst, const Cell* src) {
    if (Cell* const to = assigned(dst, src)) *to = Cell(*src);
  }

  static void move(Cell* dst, Cell* src) {
    if (Cell* const to = assigned(dst, src)) {
      const Cell moved = *src;
      *src = Cell();
      *to = moved;
    }
  }

  static void refer(Cell* dst, Cell* to) {
    for (;; to = to->referent) {
      if (to == dst) fail("VObject::operator=: won't assign reference to self");
      if (to->tag != VORN::DT_REF) break;
    }
    *dst = {VORN::DT_REF, 0, nullptr, to};
  }

  static void unref(Cell* c) {
    if (c->tag != VORN::DT_REF) fail("VObject::unref called on non-reference");
    *c = Cell();
  }

  void intern(Cell* c) {
    c = target(c);
    if (c->tag != VORN::DT_STR && c->tag != VORN::DT_SYMBOL) {
      fail("VObject::intern: data type not DT_SYMBOL or DT_STR");
    }
    *c = *make(VORN::DT_SYMBOL, c->contents->bytes);
  }

  void reset(Cell* c, uint8_t tag) {
    c = target(c);
    if (tag == VORN::DT_NIL || tag == VORN::DT_UDT) {
      *c = {tag, 0, nullptr, nullptr};
      return;
    }
    if (c->tag != tag) *c = *make(tag);
    c->contents->members.clear();
    c->contents->elements.clear();
  }

  /// The element under the key, made if it is missing; `caller` is what the failure begins with.
  Cell* fetch(Cell* c, const std::string& key, const char* caller) {
    c = target(c);
    if (c->tag != VORN::DT_HASH) fail(std::string(caller) + " called on non-hash object");
    Cell*& member = c->contents->members[key];
    if (member == nullptr) member = make();
    return member;
  }

  /// The values may be the elements themselves.
  void append(Cell* c, const std::vector<Cell*>& values) {
    c = target(c);
    if (c->tag != VORN::DT_VECTOR) fail("VObject::append called on non-vector object");
    for (size_t n = values.size(), i = 0; i < n; ++i) c->contents->elements.push_back(make(*values[i]));
  }

  void merge(Cell* dst, const Cell* src) {
    if (++steps_ > MOST_STEPS) throw Unsound();
    dst = target(dst);
    src = target(src);
    Contents* const to = dst->contents;
    const Contents* const from = src->contents;
    if (dst->tag != src->tag) {
      const bool has_nil = dst->tag == VORN::DT_NIL || src->tag == VORN::DT_NIL;
      if (!has_nil && (is_guarded(dst->tag) || is_guarded(src->tag))) {
        fail("VObject::merge: Won't merge disparate container and/or user-defined types.");
      }
      assign(dst, src);
    } else if (dst->tag == VORN::DT_HASH) {
      for (const auto& [key, value] : from->members) {
        const auto old = to->members.find(key);
        if (old != to->members.end()) {
          merge(old->second, value);
        } else {
          to->members[key] = make(*value);
        }
      }
    } else if (dst->tag == VORN::DT_VECTOR) {
      const size_t n = to->elements.size();
      for (size_t i = 0; i < from->elements.size(); ++i) {
        if (++steps_ > MOST_STEPS) throw Unsound();
        if (i < n) {
          merge(to->elements[i], from->elements[i]);
        } else {
          to->elements.push_back(make(*from->elements[i]));
        }
      }
    } else {
      assign(dst, src);
    }
  }

  /// A distance beyond epsilon that is more than the rounding of the two numbers.
  static bool is_change(double a, double b, double epsilon) {
    const double distance = std::fabs(a - b);
    return distance > epsilon && (std::isinf(distance) || std::fmax(a, b) > std::fmin(a, b) + epsilon);
  }

  bool diff(const Cell* a, Cell* out, const Cell* b, bool& structural, int parent_tag, double epsilon) {
    *target(out) = Cell();
    structural = false;
    return diff_into(a, out, b, structural, parent_tag, epsilon);
  }

  static bool equal(const Cell* a, const Cell* b) {
    while (a != b && (a->tag == VORN::DT_REF || b->tag == VORN::DT_REF)) {
      const Cell*& next = a->tag == VORN::DT_REF ? a : b;
      next = next->referent;
    }
    if (a == b) return true;
    if (a->tag != b->tag) return false;
    if (a->tag == VORN::DT_DOUBLE) return double_of(a->word) == double_of(b->word);
    if (a->contents == nullptr) return a->word == b->word;
    const Contents& x = *a->contents;
    const Contents& y = *b->contents;
    if (x.bytes != y.bytes || x.members.size() != y.members.size() || x.elements.size() != y.elements.size()) {
      return false;
    }
    for (size_t i = 0; i < x.elements.size(); ++i) {
      if (!equal(x.elements[i], y.elements[i])) return false;
    }
    for (const auto& [key, value] : x.members) {
      const auto other = y.members.find(key);
      if (other == y.members.end() || !equal(value, other->second)) return false;
    }
    return true;
  }

  /// What a cell holds directly.
  static std::vector<Cell*> parts_of(const Cell* c) {
    std::vector<Cell*> parts;
    if (c->referent != nullptr) parts.push_back(c->referent);
    if (c->contents != nullptr) {
      parts.insert(parts.end(), c->contents->elements.begin(), c->contents->elements.end());
      for (const auto& member : c->contents->members) parts.push_back(member.second);
    }
    return parts;
  }

  static bool holds(const Cell* c, const Cell* part) {
    for (const Cell* const p : parts_of(c)) {
      if (p == part || holds(p, part)) return true;
    }
    return false;
  }

  /// Equality and diff are not for these.
  static bool has_empty_udt(const Cell* c) {
    if (c->tag == VORN::DT_UDT && c->contents == nullptr) return true;
    for (const Cell* const p : parts_of(c)) {
      if (has_empty_udt(p)) return true;
    }
    return false;
  }

  static std::string rendered(const Cell* c) {
    std::string text;
    switch (c->tag) {
      case VORN::DT_NIL: return "nil";
      case VORN::DT_INT: return std::to_string(static_cast<int64_t>(c->word));
      case VORN::DT_DOUBLE: {
        char printed[400];
        std::snprintf(printed, sizeof printed, "%f", double_of(c->word));
        return printed;
      }
      case VORN::DT_BOOL: return c->word != 0 ? "true" : "false";
      case VORN::DT_SYMBOL: {
        const std::string& name = c->contents->bytes;
        return ":" + (name.find(' ') == std::string::npos ? escaped(name) : quoted(name));
      }
      case VORN::DT_STR: return quoted(c->contents->bytes);
      case VORN::DT_UDT: return "<UDT:" + (c->contents == nullptr ? "NULL" : c->contents->bytes) + ">";
      case VORN::DT_REF: return "<REF:" + rendered(c->referent) + ">";
      case VORN::DT_HASH:
        for (const auto& [key, value] : c->contents->members) {
          text += (text.empty() ? "" : ", ") + quoted(key) + "=>" + rendered(value);
        }
        return "{" + text + "}";
      default:
        for (const Cell* const element : c->contents->elements) {
          text += (text.empty() ? "" : ", ") + rendered(element);
        }
        return "[" + text + "]";
    }
  }

  /// Appends the encoding. What fails leaves its beginning.
  static void encode(const Cell* c, uint32_t maxdepth, std::string& out, int64_t depth = 1) {
    if (depth > static_cast<int32_t>(maxdepth)) fail("VObject::serialize: maxdepth exceeded");
    switch (c->tag) {
      case VORN::DT_NIL: out += '\0'; break;
      case VORN::DT_INT: encode_int(static_cast<int64_t>(c->word), out); break;
      case VORN::DT_DOUBLE:
        out += '\x04';
        for (int shift = 56; shift >= 0; shift -= 8) out += static_cast<char>(c->word >> shift);
        break;
      case VORN::DT_BOOL: out += c->word != 0 ? '\x02' : '\x01'; break;
      case VORN::DT_SYMBOL: encode_bytes('\x06', c->contents->bytes, out); break;
      case VORN::DT_STR: encode_bytes('\x07', c->contents->bytes, out); break;
      case VORN::DT_UDT: fail("VObject::serialize: serialization of DT_UDT not yet supported");
      case VORN::DT_REF: fail("VObject::serialize: serialization of DT_REF not yet supported");
      case VORN::DT_HASH:
        out += '\x08';
        for (const auto& [key, value] : c->contents->members) {
          encode_bytes('\x05', key, out);
          encode(value, maxdepth, out, depth + 1);
        }
        out += '\x09';
        break;
      default:
        out += '\x0A';
        for (const Cell* const element : c->contents->elements) encode(element, maxdepth, out, depth + 1);
        out += '\x0B';
        break;
    }
  }

  /// A copy that has nothing in common with the cell. REQUIRES: no references and user-defined values in it.
  Cell* deep_copied(const Cell* c) {
    Cell* const copy = make(*c);
    if (c->contents == nullptr) return copy;
    *copy = *make(c->tag, c->contents->bytes);
    for (const Cell* const element : c->contents->elements) {
      copy->contents->elements.push_back(deep_copied(element));
    }
    for (const auto& [key, value] : c->contents->members) copy->contents->members[key] = deep_copied(value);
    return copy;
  }

  void deep_copy(const Cell* source, Cell* out) {
    *target(out) = Cell();
    std::string bytes;
    encode(source, 64, bytes);
    *out = *deep_copied(source);
  }

 private:
  static constexpr unsigned TOO_MUCH = 1500;
  static constexpr unsigned MOST_STEPS = 5000;

  [[noreturn]] static void fail(const std::string& text) { throw VORN::VornRuntimeError(text); }

  static bool is_guarded(uint8_t tag) { return tag == VORN::DT_HASH || tag == VORN::DT_VECTOR || tag == VORN::DT_UDT; }

  unsigned weight(Cell& c) {
    if (c.walk == walk_) return c.weight;
    c.walk = walk_;
    c.weight = TOO_MUCH;  // until it is known: a cell that is met again meanwhile holds itself
    unsigned sum = 1;
    for (Cell* const part : parts_of(&c)) {
      if (sum < TOO_MUCH) sum += weight(*part);
    }
    return c.weight = sum;
  }

  bool diff_into(const Cell* a, Cell* out, const Cell* b, bool& structural, int parent_tag, double epsilon) {
    a = target(a);
    b = target(b);
    if (a->tag == b->tag) {
      if (equal(a, b)) return false;
      if (a->tag == VORN::DT_DOUBLE && !is_change(double_of(a->word), double_of(b->word), epsilon)) return false;
    }
    if (a->tag != b->tag || (a->tag != VORN::DT_HASH && a->tag != VORN::DT_VECTOR)) {
      assign(out, b);
      return true;
    }
    const Contents* const from = a->contents;
    const Contents* const to = b->contents;
    reset(out, a->tag);
    Contents* const patch = target(out)->contents;
    for (const auto& [key, value] : to->members) {
      const auto old = from->members.find(key);
      Cell* change = make();
      if (old == from->members.end()) {
        *change = *value;
      } else if (!diff_into(old->second, change, value, structural, VORN::DT_HASH, epsilon)) {
        continue;
      }
      patch->members[key] = change;
      if (parent_tag == VORN::DT_VECTOR) structural = true;
    }
    for (const auto& member : from->members) {
      if (to->members.count(member.first) == 0) structural = true;
    }
    for (size_t i = 0; i < to->elements.size(); ++i) {
      const Cell* const value = to->elements[i];
      patch->elements.push_back(make());
      Cell* const change = patch->elements.back();
      if (i >= from->elements.size()) {
        *change = *value;
      } else if (!diff_into(from->elements[i], change, value, structural, VORN::DT_VECTOR, epsilon)) {
        const uint8_t tag = target(value)->tag;
        if (tag == VORN::DT_HASH || tag == VORN::DT_VECTOR) {
          reset(change, tag);
        } else {
          *change = *value;
        }
      }
    }
    return true;
  }

  static std::string escaped(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
      const unsigned code = static_cast<unsigned char>(c);
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", code);
      text += code < 0x20 || code >= 0x80 ? hex : c == '"' ? "\\\"" : c == '\\' ? "\\\\" : std::string(1, c);
    }
    return text;
  }
  static std::string quoted(const std::string& bytes) { return '"' + escaped(bytes) + '"'; }

  /// A varint: `bits` data bits in the first byte, whose other bits are `flags`, then seven in each byte. The bit above
  /// a group is its continuation flag.
  static void encode_groups(unsigned flags, unsigned bits, uint64_t value, std::string& out) {
    while (value >> bits != 0) {
      out += static_cast<char>(flags | 1U << bits | (value & ((1U << bits) - 1)));
      value >>= bits;
      flags = 0;
      bits = 7;
    }
    out += static_cast<char>(flags | value);
  }
  static void encode_int(int64_t value, std::string& out) {
    const uint64_t word = static_cast<uint64_t>(value);
    encode_groups(value < 0 ? 0xC0 : 0x80, 5, value < 0 ? 0 - word : word, out);
  }
  static void encode_bytes(char type, const std::string& bytes, std::string& out) {
    out += type;
    encode_groups(0, 7, bytes.size(), out);
    out += bytes;
  }

  std::deque<Cell> cells_;
  std::deque<Contents> contents_;
  unsigned steps_ = 0;
  unsigned walk_ = 0;
};

}  // namespace vorn_fuzz
