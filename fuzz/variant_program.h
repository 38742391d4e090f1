/// An input as a program over a few variables: values are made, copied, moved, referred to, stored, merged, encoded,
/// and taken apart again, so that they share storage in every possible way. Each step is made on the model first; where
/// that finds a cycle, the program ends before the library builds it. After each step the library's values must be the
/// model's, down to what is shared with what.
#pragma once

#include <boost/make_shared.hpp>
#include <cstdint>
#include <iterator>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/values.h"
#include "fuzz/variant_model.h"
#include "proto/packet_buf.h"
#include "proto/vorn_runtime_error.h"
#include "test/support/buffers.h"
#include "test/support/poisoned_tail.h"
#include "test/support/reference_decoder.h"
#include "vobject/render.h"
#include "vobject/vobject.h"

namespace vorn_fuzz {

/// The number in a double, which no accessor gives.
inline double double_in(const VORN::VObject& v) {
  const std::string bytes = encoded(v);
  return Model::double_of(Input(reinterpret_cast<const uint8_t*>(bytes.data()) + 1, 8).word(8));
}

/// Compares variants with cells: what is shared on one side must be shared on the other.
class SameGraph {
 public:
  void check(const VORN::VObject& v, const Model::Cell* c) {
    if (!is_new(&v, c)) return;
    VORN_CHECK(v.type() == c->tag);
    switch (v.type()) {
      case VORN::DT_NIL: break;
      case VORN::DT_INT: VORN_CHECK(v.to_i64() == static_cast<int64_t>(c->word)); break;
      case VORN::DT_DOUBLE: VORN_CHECK(Model::word_of(double_in(v)) == c->word); break;
      case VORN::DT_BOOL: VORN_CHECK(v.to_bool() == (c->word != 0)); break;
      case VORN::DT_SYMBOL: VORN_CHECK(*VORN::VObject::sym_lookup(v.intern()) == c->contents->bytes); break;
      case VORN::DT_STR: VORN_CHECK(!is_new(&v.getstr(), c->contents) || v.getstr() == c->contents->bytes); break;
      case VORN::DT_HASH: {
        if (!is_new(&v.gethash(), c->contents)) break;
        VORN_CHECK(v.gethash().size() == c->contents->members.size());
        auto member = c->contents->members.begin();
        for (const auto& [key, value] : v.gethash()) {
          VORN_CHECK(key.view() == member->first && key.owner_flag() == 1);
          check(value, member++->second);
        }
        break;
      }
      case VORN::DT_VECTOR:
        if (!is_new(&v.getvec(), c->contents)) break;
        VORN_CHECK(v.getvec().size() == c->contents->elements.size());
        for (size_t i = 0; i < v.getvec().size(); ++i) check(v.getvec()[i], c->contents->elements[i]);
        break;
      case VORN::DT_UDT:
        VORN_CHECK((v.udt() == nullptr) == (c->contents == nullptr));
        if (v.udt() != nullptr) is_new(v.udt(), c->contents);
        break;
      default: check(*v.getref(), c->referent); break;
    }
  }

 private:
  bool is_new(const void* here, const void* there) {
    const auto known = there_.emplace(here, there);
    const auto back = here_.emplace(there, here);
    VORN_CHECK(known.second == back.second && known.first->second == there && back.first->second == here);
    return known.second;
  }

  std::unordered_map<const void*, const void*> there_;
  std::unordered_map<const void*, const void*> here_;
};

/// The text of the failure; empty when there is none.
template <typename Action>
std::string failure_of(Action action) {
  try {
    action();
    return "";
  } catch (const VORN::VornRuntimeError& e) {
    return e.what();
  }
}

class Program {
 public:
  /// Two hashes, two vectors, two nils.
  explicit Program(Input& in) : in_(in) {
    static const uint8_t tags[VARIABLES] = {VORN::DT_HASH, VORN::DT_HASH, VORN::DT_VECTOR, VORN::DT_VECTOR};
    for (const uint8_t tag : tags) {
      variables_.push_back(boost::make_shared<VORN::VObject>());
      if (tag == VORN::DT_HASH) variables_.back()->reset_hash();
      if (tag == VORN::DT_VECTOR) variables_.back()->reset_vector(0);
      cells_.push_back(tag == VORN::DT_NIL ? model_.make() : model_.make(tag));
    }
  }

  /// Up to the end of the input, or to the step that would build a cycle.
  void run() {
    try {
      while (!in_.empty()) {
        step();
        SameGraph same;
        for (unsigned i = 0; i < VARIABLES; ++i) same.check(*variables_[i], cells_[i]);
      }
    } catch (const Model::Unsound&) {
    }
  }

  const VORN::VObject& value(unsigned i) const { return *variables_[i]; }

 private:
  static constexpr unsigned VARIABLES = 6;

  /// A variable, or something in one, on both sides.
  struct Place {
    VORN::VObject& value;
    Model::Cell* cell;
  };

  /// One operation on both sides; returns whether it succeeded.
  template <typename OnModel, typename OnLibrary>
  bool both(OnModel on_model, OnLibrary on_library) {
    const std::string expected = failure_of(on_model);
    if (!model_.is_sound()) throw Model::Unsound();
    VORN_CHECK(failure_of(on_library) == expected);
    return expected.empty();
  }

  std::string key() {
    static const std::string keys[] = {"", "a", "b", "ab", "\xFF", std::string("a\0b", 3), std::string(1, '\0')};
    const unsigned i = in_.below(9);
    return i < 7 ? keys[i] : in_.bytes(in_.below(4));
  }

  Place place() {
    const unsigned choice = in_.byte();
    return inside({*variables_[choice % VARIABLES], cells_[choice % VARIABLES]}, choice >> 6);
  }

  /// A referent or a member, so many steps down as there are levels.
  Place inside(const Place& at, unsigned steps) {
    if (steps == 0) return at;
    if (at.cell->tag == VORN::DT_REF && in_.below(2) != 0) {
      return inside({*at.value.getref(), at.cell->referent}, steps - 1);
    }
    const Model::Cell* const target = Model::target(at.cell);
    if (target->contents == nullptr) return at;
    auto& members = target->contents->members;
    auto& elements = target->contents->elements;
    if (!members.empty()) {
      const auto n = static_cast<std::ptrdiff_t>(in_.byte() % members.size());
      return inside({std::next(at.value.gethash().begin(), n)->second, std::next(members.begin(), n)->second},
                    steps - 1);
    }
    if (elements.empty()) return at;
    const size_t n = in_.byte() % elements.size();
    return inside({at.value.at(static_cast<int64_t>(n)), elements[n]}, steps - 1);
  }

  /// What no assignment made before.
  std::pair<VORN::VObject, Model::Cell*> fresh() {
    using VORN::VObject;
    const unsigned kind = in_.below(10);
    switch (kind) {
      case 0: return {VObject(), model_.make()};
      case 1: {
        const uint64_t n = in_.number();
        return {VObject(static_cast<int64_t>(n)), model_.make({VORN::DT_INT, n, nullptr, nullptr})};
      }
      case 2: {
        static const double doubles[] = {0.0,   -0.0,   1.0,      1.05,      0.05,        5e-324,
                                         1e308, -1e308, HUGE_VAL, -HUGE_VAL, std::nan("")};
        const unsigned i = in_.below(13);
        const double number = i < 11 ? doubles[i] : Model::double_of(in_.word(8));
        return {VObject(number), model_.make({VORN::DT_DOUBLE, Model::word_of(number), nullptr, nullptr})};
      }
      case 3: {
        const bool truth = in_.below(2) != 0;
        return {VObject(truth), model_.make({VORN::DT_BOOL, truth, nullptr, nullptr})};
      }
      case 4: {
        static const char* const names[] = {"", "red", "two words", "\x01\xFF\"\\"};
        const char* const name = names[in_.below(4)];
        VObject symbol(name);
        symbol.intern();
        return {symbol, model_.make(VORN::DT_SYMBOL, name)};
      }
      case 5: {
        const unsigned number = in_.below(4);
        if (number == 3) {
          return {VObject(boost::shared_ptr<VORN::VObjectUDT>()), model_.make({VORN::DT_UDT, 0, nullptr, nullptr})};
        }
        return {VObject(boost::shared_ptr<VORN::VObjectUDT>(boost::make_shared<Numbered>(number))),
                model_.make(VORN::DT_UDT, std::to_string(number))};
      }
      case 6: return {VObject::new_hash(), model_.make(VORN::DT_HASH)};
      case 7: return {VObject::new_vector(in_.below(4)), model_.make(VORN::DT_VECTOR)};
      default: {
        const std::string bytes = in_.bytes(in_.byte() % 40);
        return {VObject(bytes), model_.make(VORN::DT_STR, bytes)};
      }
    }
  }

  /// What is stored: something that is there, or something new.
  Place source() {
    if (in_.below(2) != 0) return place();
    auto made = fresh();
    made_ = boost::make_shared<VORN::VObject>(std::move(made.first));
    return {*made_, made.second};
  }

  void step() {
    switch (in_.below(24)) {
      case 0: set(); break;
      case 1: assign(); break;
      case 2: move(); break;
      case 3: refer(); break;
      case 4: renew(); break;
      case 5:
      case 6: store(); break;
      case 7: fetch(); break;
      case 8:
      case 9: append(); break;
      case 10: append_all(); break;
      case 11: take_out(); break;
      case 12: reset(); break;
      case 13: unref(); break;
      case 14: intern(); break;
      case 15:
      case 16: merge(); break;
      case 17:
      case 18: diff(); break;
      case 19: deep_copy(); break;
      case 20: decode(); break;
      case 21: compare(); break;
      case 22: nest(); break;
      default: write_into_string(); break;
    }
  }

  /// The setters write to the target, whatever the kind.
  void set() {
    const Place dst = place();
    const Place src = place();
    set(dst, src);
  }

  void set(const Place& dst, const Place& src) {
    Model::Cell* const set = Model::target(dst.cell);
    const Model::Cell* const from = Model::target(src.cell);
    switch (from->tag) {
      case VORN::DT_INT: both([&] { *set = Model::Cell(*from); }, [&] { dst.value = src.value.to_i64(); }); break;
      case VORN::DT_DOUBLE: {
        const double near = Model::double_of(from->word) + 0.03;
        both([&] { *set = {VORN::DT_DOUBLE, Model::word_of(near), nullptr, nullptr}; }, [&] { dst.value = near; });
        break;
      }
      case VORN::DT_BOOL: both([&] { *set = Model::Cell(*from); }, [&] { dst.value = src.value.to_bool(); }); break;
      case VORN::DT_STR:
        both([&] { *set = *model_.make(VORN::DT_STR, from->contents->bytes); },
             [&] { dst.value = static_cast<const std::string&>(src.value.getstr()); });
        break;
      case VORN::DT_VECTOR:
        both([&] { *set = *model_.make_vector(from->contents->elements); }, [&] { dst.value = src.value.getvec(); });
        break;
      default:
        both([&] { *set = *model_.make(VORN::DT_STR); }, [&] { dst.value = static_cast<const char*>(nullptr); });
        break;
    }
  }

  void assign() {
    const Place dst = place();
    const Place src = source();
    both([&] { Model::assign(dst.cell, src.cell); }, [&] { dst.value = src.value; });
  }

  void move() {
    const Place dst = place();
    const Place src = source();
    both([&] { Model::move(dst.cell, src.cell); }, [&] { dst.value = std::move(src.value); });
  }

  void refer() {
    const Place dst = place();
    const unsigned i = in_.below(VARIABLES);
    if (in_.below(2) != 0) {
      both([&] { Model::refer(dst.cell, cells_[i]); }, [&] { dst.value = variables_[i]; });
    } else {
      Model::Cell* const copy = model_.make(*cells_[i]);
      both([&] { Model::refer(dst.cell, copy); },
           [&] { dst.value = boost::make_shared<VORN::VObject>(*variables_[i]); });
    }
  }

  /// Another variable under the same number. The old one lives on where it is referred to.
  void renew() {
    const Place src = place();
    const unsigned i = in_.below(VARIABLES);
    variables_[i] = boost::make_shared<VORN::VObject>(src.value);
    cells_[i] = model_.make(*src.cell);
  }

  void store() {
    const Place dst = place();
    const Place src = source();
    const std::string k = key();
    if (k.find('\0') == std::string::npos) {
      both([&] { Model::assign(model_.fetch(dst.cell, k, "VObject::store"), src.cell); },
           [&] { VORN_CHECK(dst.value.store(k.c_str(), src.value).type() == VORN::DT_HASH); });
    } else if (Model::target(dst.cell)->tag == VORN::DT_HASH) {
      both([&] { Model::assign(model_.fetch(dst.cell, k, ""), src.cell); },
           [&] { dst.value.gethash()[VORN::string_ref(k)] = src.value; });
    }
  }

  void fetch() {
    const Place at = place();
    const std::string k = key().c_str();
    const VORN::VObject& constant = at.value;
    if (in_.below(2) != 0) {
      both([&] { model_.fetch(at.cell, k, "non-const VObject::fetch"); }, [&] { at.value.fetch(k.c_str()); });
    } else if (at.cell->tag == VORN::DT_REF) {
      both([&] { model_.fetch(at.cell, k, "non-const VObject::fetch"); }, [&] { constant.fetch(k.c_str()); });
    } else {
      const bool is_there = at.cell->tag == VORN::DT_HASH && at.cell->contents->members.count(k) != 0;
      VORN_CHECK(constant.has_key(k.c_str()) == is_there);
      VORN_CHECK(is_there || constant.fetch(k.c_str()).type() == VORN::DT_NIL);
    }
  }

  void append() {
    const Place dst = place();
    const Place src = source();
    const unsigned choice = in_.byte();
    if (choice < 0xF0) {
      both([&] { model_.append(dst.cell, {src.cell}); }, [&] { dst.value.append(src.value); });
    } else {
      const size_t times = choice - 0xE0;
      const VORN::VObjectVector values(times, src.value);
      both([&] { model_.append(dst.cell, std::vector<Model::Cell*>(times, src.cell)); },
           [&] { dst.value.append(values); });
    }
  }

  void append_all() {
    const Place dst = place();
    const Place src = place();
    const Model::Cell* const from = Model::target(src.cell);
    if (from->tag != VORN::DT_VECTOR) return;
    both([&] { model_.append(dst.cell, from->contents->elements); }, [&] { dst.value.append(src.value.getvec()); });
  }

  void take_out() {
    const Place at = place();
    Model::Cell* const target = Model::target(at.cell);
    if (target->tag == VORN::DT_HASH) {
      const std::string k = key();
      both([&] { target->contents->members.erase(k); }, [&] { at.value.gethash().erase(VORN::string_ref(k)); });
    } else if (target->tag == VORN::DT_VECTOR && !target->contents->elements.empty()) {
      both([&] { target->contents->elements.pop_back(); }, [&] { at.value.getvec().pop_back(); });
    }
  }

  void reset() {
    const Place at = place();
    switch (in_.below(4)) {
      case 0: both([&] { model_.reset(at.cell, VORN::DT_NIL); }, [&] { at.value.set_nil(); }); break;
      case 1: both([&] { model_.reset(at.cell, VORN::DT_HASH); }, [&] { at.value.reset_hash(); }); break;
      case 2:
        both([&] { model_.reset(at.cell, VORN::DT_VECTOR); }, [&] { at.value.reset_vector(in_.below(9)); });
        break;
      default: both([&] { model_.reset(at.cell, VORN::DT_UDT); }, [&] { at.value.reset_udt(); }); break;
    }
  }

  void unref() {
    const Place at = place();
    both([&] { Model::unref(at.cell); }, [&] { at.value.unref(); });
  }

  void intern() {
    const Place at = place();
    const Model::Cell* const target = Model::target(at.cell);
    // Names are never freed, so only short ones are made.
    if (target->tag == VORN::DT_STR && target->contents->bytes.size() > 2) return;
    both([&] { model_.intern(at.cell); }, [&] { at.value.intern(); });
  }

  void merge() {
    const Place dst = place();
    const Place src = source();
    both([&] { model_.merge(dst.cell, src.cell); }, [&] { dst.value.merge(src.value); });
  }

  /// A deep copy with a little change, if there can be one.
  Place similar(const Place& at) {
    made_ = boost::make_shared<VORN::VObject>();
    const Place copy{*made_, model_.make()};
    both([&] { model_.deep_copy(at.cell, copy.cell); }, [&] { VORN::deep_copy(at.value, copy.value); });
    const Place changed = inside(copy, in_.below(4));
    set(changed, changed);
    return copy;
  }

  void diff() {
    const Place a = place();
    const Place b = in_.below(2) != 0 ? similar(a) : place();
    const Place out = place();
    const int parent_tag = in_.below(2) != 0 ? VORN::DT_VECTOR : VORN::DT_NIL;
    static const double epsilons[] = {0, 0, 0.05, 0.5, 1e308};
    const double epsilon = epsilons[in_.below(5)];
    if (Model::has_empty_udt(a.cell) || Model::has_empty_udt(b.cell)) return;
    // A patch that grows inside of what is compared need not end.
    const Model::Cell* const patched = Model::target(out.cell);
    if (Model::holds(Model::target(a.cell), patched) || Model::holds(Model::target(b.cell), patched)) return;
    bool expected_structural = true;
    bool expected = false;
    bool structural = true;
    bool differ = false;
    both([&] { expected = model_.diff(a.cell, out.cell, b.cell, expected_structural, parent_tag, epsilon); },
         [&] { differ = VORN::VObject::diff(a.value, out.value, b.value, structural, parent_tag, epsilon); });
    VORN_CHECK(differ == expected && structural == expected_structural);
  }

  void deep_copy() {
    const Place src = place();
    const Place dst = place();
    both([&] { model_.deep_copy(src.cell, dst.cell); }, [&] { VORN::deep_copy(src.value, dst.value); });
  }

  Model::Cell* adopted(const VORN::VObject& v) {
    switch (v.type()) {
      case VORN::DT_NIL: return model_.make();
      case VORN::DT_INT: return model_.make({v.type(), static_cast<uint64_t>(v.to_i64()), nullptr, nullptr});
      case VORN::DT_DOUBLE: return model_.make({v.type(), Model::word_of(double_in(v)), nullptr, nullptr});
      case VORN::DT_BOOL: return model_.make({v.type(), v.to_bool(), nullptr, nullptr});
      case VORN::DT_SYMBOL:
      case VORN::DT_STR: return model_.make(v.type(), v.str_or_symbol_name());
      default: break;
    }
    Model::Cell* const made = model_.make(v.type());
    if (v.type() == VORN::DT_HASH) {
      for (const auto& [key, value] : v.gethash()) made->contents->members[std::string(key.view())] = adopted(value);
    } else {
      for (const VORN::VObject& element : v.getvec()) made->contents->elements.push_back(adopted(element));
    }
    return made;
  }

  /// The encoding of a value, whole or damaged, is read over another.
  void decode() {
    const Place src = place();
    const Place dst = place();
    const uint32_t maxdepth = in_.below(4) != 0 ? 64 : in_.byte() - 4;
    std::string bytes;
    VORN::PROTO::PacketBuf written;
    const bool is_whole =
        both([&] { Model::encode(src.cell, maxdepth, bytes); }, [&] { src.value.serialize(written, maxdepth); });
    VORN_CHECK(written.data().substr(0, written.pos()) == bytes);
    if (!is_whole) return;

    const unsigned damage = in_.below(4);
    const uint64_t at = in_.word(2) % bytes.size();
    if (damage == 2) bytes[at] = static_cast<char>(in_.byte());
    const uint64_t end = damage == 3 ? at : bytes.size();
    const bool symbols_as_strings = damage > 1 || in_.below(2) != 0;
    VORN::PROTO::PacketBuf buf;
    vorn_test::fill(buf, bytes);
    const vorn_test::PoisonedTail tail(buf);
    const VORN::VObject untouched{boost::shared_ptr<VORN::VObjectUDT>()};
    VORN::VObject expected(untouched);
    const std::string failure = vorn_test::reference_deserialize(buf, end, expected, symbols_as_strings, maxdepth);
    const uint64_t expected_pos = buf.pos();
    buf.set_pos(0);
    both(
        [&] {
          if (expected.type() != untouched.type()) *dst.cell = *adopted(expected);
          if (!failure.empty()) throw VORN::VornRuntimeError(failure);
        },
        [&] { VORN::VObject::deserialize(buf, end, dst.value, symbols_as_strings, maxdepth); });
    VORN_CHECK(buf.pos() == expected_pos);
    VORN_CHECK(damage > 1 || symbols_as_strings || encoded(dst.value) == bytes);
  }

  void compare() {
    const Place a = place();
    const Place b = place();
    std::string text = "> ";
    render(a.value, text);
    VORN_CHECK(text == "> " + Model::rendered(a.cell));
    if (Model::has_empty_udt(a.cell) || Model::has_empty_udt(b.cell)) return;
    const bool expected = Model::equal(a.cell, b.cell);
    VORN_CHECK((a.value == b.value) == expected && (b.value != a.value) != expected);
  }

  static VORN::VObject nested(const VORN::VObject& v, unsigned levels) {
    return levels == 0 ? v : VORN::VObject(VORN::VObjectVector(1, nested(v, levels - 1)));
  }

  void nest() {
    const Place dst = place();
    const Place src = place();
    const unsigned levels = in_.below(70);
    Model::Cell* cell = model_.make(*src.cell);
    for (unsigned i = 0; i < levels; ++i) cell = model_.make_vector({cell});
    both([&] { Model::assign(dst.cell, cell); }, [&] { dst.value = nested(src.value, levels); });
  }

  void write_into_string() {
    const Place at = place();
    const std::string bytes = in_.bytes(in_.below(9));
    const Model::Cell* const target = Model::target(at.cell);
    both(
        [&] {
          if (target->tag != VORN::DT_STR) throw VORN::VornRuntimeError("VObject::getstr: data type not DT_STR");
          target->contents->bytes += bytes;
        },
        [&] { at.value.getstr() += bytes; });
  }

  Input& in_;
  Model model_;
  std::vector<boost::shared_ptr<VORN::VObject>> variables_;
  std::vector<Model::Cell*> cells_;
  boost::shared_ptr<VORN::VObject> made_;
};

}  // namespace vorn_fuzz
