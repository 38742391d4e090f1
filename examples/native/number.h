/// An integer or a double, as a double.
#pragma once

#include <stdexcept>

#include "proto/value_wire.h"
#include "vobject/vobject.h"

namespace rpc {

/// A variant tells its double in full by its encoding alone: to_i64() cuts it and render() rounds it.
inline double number_of(const VORN::VObject& value) {
  if (value.type() == VORN::DT_INT) return static_cast<double>(value.to_i64());
  if (value.type() != VORN::DT_DOUBLE) throw std::invalid_argument("not a number");
  VORN::PROTO::PacketBuf buf;
  value.serialize(buf, 1);
  buf.set_pos(1);  // behind the type
  VORN::PROTO::WireReader in(buf);
  double number = 0;
  in.read_double(number);
  return number;
}

}  // namespace rpc
