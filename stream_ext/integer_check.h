/// The search for Integers that the codec would cut to their low 32 bits. In Ruby it took nine times
/// as long as encoding 1,000 records.
#pragma once

#include "ext/ruby_compat.h"

namespace VORN {
namespace STREAM_EXT {

/// Raises RangeError "5000000000 would be cut to 32 bits" for the first such Integer in the value: the value itself, a
/// member of an Array, a key or a value of a Hash, at any depth. What the codec cannot encode is passed over. Otherwise
/// raises what an `each` of a Hash's own raises, and SystemStackError "stack level too deep", as for a value that
/// contains itself.
void check_integers(VALUE value);

/// Called once by Init.
void init_integer_check();

}  // namespace STREAM_EXT
}  // namespace VORN
