/// An integer or a double, as a double.
#pragma once

#include <stdexcept>

#include "proto/value_wire.h"
#include "vobject/vobject.h"

namespace rpc {

/// Only the encoding of a variant has its exact double: to_i64() truncates it and render() rounds it.
inline double number_of(const VORN::VObject& value) {
  if (value.type() == VORN::DT_INT) return static_cast<double>(value.to_i64());
  if (value.type() != VORN::DT_DOUBLE) throw std::invalid_argument("not a number");
  VORN::PROTO::PacketBuf buf;
  value.serialize(buf, 1);
  buf.set_pos(1);  // skips the type
  VORN::PROTO::WireReader in(buf);
  double number = 0;
  in.read_double(number);
  return number;
}

}  // namespace rpc
