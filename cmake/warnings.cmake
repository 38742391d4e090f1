# For everything below this folder; the headers of other libraries are system headers.
add_compile_options(-Wall -Wextra -Wpedantic)
if(VORN_WERROR)
  add_compile_options(-Werror)
endif()
