/// An invariant of a target. A check that fails aborts the process, which the fuzzer reports.
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
