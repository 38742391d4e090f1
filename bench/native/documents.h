/// The documents of the native benchmarks: the same tree for us and for each peer.
#pragma once

#include <string>
#include <vector>

#include "vobject/vobject.h"

namespace bench {

struct Document {
  std::string name;
  VORN::VObject value;
};

/// Made from one seed, so that two runs measure the same bytes.
const std::vector<Document>& documents();

}  // namespace bench
