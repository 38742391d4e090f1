/// The messages of a conversation: a request [id, method, arguments], a notification [nil, method, arguments], which
/// has no answer, and an answer [id, nil, result] or [id, [code, text], nil].
///
/// The client chooses the id: an integer of 32 bits or a short string. The answer repeats it, so answers may come in
/// any order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "vobject/vobject.h"

namespace VORN {
namespace RPC {

constexpr int64_t MIN_ID = std::numeric_limits<int32_t>::min();  // Ruby would cut others to their low 32 bits
constexpr int64_t MAX_ID = std::numeric_limits<int32_t>::max();
constexpr size_t MAX_ID_BYTES = 64;  // leaves room for an error answer, which repeats the id

/// The id that a client chooses behind `last`: 1 to MAX_ID, and again. A call that waits may still have the next one.
/// calls: those that wait, by id.
template <typename Calls>
int32_t next_id(int32_t last, const Calls& calls) {
  do {
    last = last == MAX_ID ? 1 : last + 1;
  } while (calls.count(last) > 0);
  return last;
}

/// The code of a request that was not executed because the server ends.
constexpr char STOPPING[] = "stopping";

/// Throws BadMessage for what is neither a request nor a notification.
void check_request(const VObject& message);

/// Throws BadMessage for what is no answer.
void check_answer(const VObject& message);

/// The messages. Throw std::bad_alloc.
/// @{
VObject request(const VObject& id, const std::string& method, const VObjectVector& arguments);
VObject success(const VObject& id, const VObject& result);
VObject failure(const VObject& id, const std::string& code, const std::string& text);
/// @}

}  // namespace RPC
}  // namespace VORN
