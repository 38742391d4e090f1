/// Programs over variants that share, refer and nest: the library against the model, step by step.
#include "fuzz/variant_program.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vorn_fuzz::Input input(data, size);
  vorn_fuzz::Program(input).run();
  return 0;
}
