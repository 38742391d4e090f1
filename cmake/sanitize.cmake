if(VORN_SANITIZE)
  list(JOIN VORN_SANITIZE "," sanitizers)
  # Assertions of contracts are on, whatever the build type.
  add_compile_options(-UNDEBUG)
  # A finding ends the program: otherwise the test would go on and pass.
  add_compile_options(-fsanitize=${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${sanitizers})
endif()
