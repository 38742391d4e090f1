#include "packing/packing_error.h"

namespace VORN {
namespace PACKING {

// Out of line, so that each class has one copy of its type information.
Error::~Error() = default;
UnknownType::~UnknownType() = default;
Malformed::~Malformed() = default;
TooDeep::~TooDeep() = default;

}  // namespace PACKING
}  // namespace VORN
