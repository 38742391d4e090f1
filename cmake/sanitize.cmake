if(VORN_SANITIZE)
  list(JOIN VORN_SANITIZE "," sanitizers)
  # What a contract demands of its caller is checked too, whatever the build type.
  add_compile_options(-UNDEBUG)
  # A finding ends the program: a test that goes on after one would pass.
  add_compile_options(-fsanitize=${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${sanitizers})
endif()
