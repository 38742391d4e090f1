#include "rpc/detail/envelope.h"

#include "rpc/errors.h"

namespace VORN {
namespace RPC {

namespace {

bool is_id(const VObject& value) {
  switch (value.type()) {
    case DT_NIL: return true;
    case DT_INT: return value.to_i64() >= MIN_ID && value.to_i64() <= MAX_ID;
    case DT_STR: return value.getstr().size() <= MAX_ID_BYTES;
    default: return false;
  }
}

bool is_error(const VObject& value) {
  if (value.type() != DT_VECTOR || value.getvec().size() != 2) return false;
  return value.getvec()[0].type() == DT_STR && value.getvec()[1].type() == DT_STR;
}

/// The parts of a message of three; null for anything else.
const VObjectVector* parts_of(const VObject& message) {
  return message.type() == DT_VECTOR && message.getvec().size() == 3 ? &message.getvec() : nullptr;
}

VObject message_of(const VObject& first, const VObject& second, const VObject& third) {
  VObject message = VObject::new_vector(3);
  VObjectVector& parts = message.getvec();
  parts.push_back(first);
  parts.push_back(second);
  parts.push_back(third);
  return message;
}

}  // namespace

void check_request(const VObject& message) {
  const VObjectVector* parts = parts_of(message);
  if (parts == nullptr || !is_id((*parts)[0]) || (*parts)[1].type() != DT_STR || (*parts)[2].type() != DT_VECTOR) {
    throw BadMessage("not a request");
  }
}

void check_answer(const VObject& message) {
  const VObjectVector* parts = parts_of(message);
  if (parts == nullptr || ((*parts)[1].type() != DT_NIL && !is_error((*parts)[1]))) throw BadMessage("not an answer");
}

VObject request(const VObject& id, const std::string& method, const VObjectVector& arguments) {
  return message_of(id, method, VObject(arguments));
}

VObject success(const VObject& id, const VObject& result) {
  return message_of(id, VObject(), result);
}

VObject failure(const VObject& id, const std::string& code, const std::string& text) {
  return message_of(id, VObject(VObjectVector{code, text}), VObject());
}

}  // namespace RPC
}  // namespace VORN
