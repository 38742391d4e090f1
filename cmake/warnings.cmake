# For everything below this folder; the headers of other libraries are system headers.
add_compile_options(-Wall -Wextra -Wpedantic)
# g++ 16 (15 was not tried) confuses Boost's counted pointers of different types and reports their members as out
# of bounds.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 15)
  add_compile_options(-Wno-array-bounds)
endif()
if(VORN_WERROR)
  add_compile_options(-Werror)
endif()
