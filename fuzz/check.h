/// What a target holds to be always true. A check that fails ends the process, which is what a fuzzer looks
/// for.
#pragma once

#include <cstdio>
#include <cstdlib>

#define VORN_CHECK(condition)                                                        \
  do {                                                                               \
    if (!(condition)) {                                                              \
      std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                  \
    }                                                                                \
  } while (false)
