# Whole-build sanitizer flags, so that both libraries, the tests and the tool
# are instrumented alike.
if(SORVALEN_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(SORVALEN_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT SORVALEN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "SORVALEN_SANITIZE must be empty, address or thread")
endif()

if(SORVALEN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "SORVALEN_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++)")
  endif()
  # Undefined behaviour stops the run like a crash does: with recovery, a
  # report would only be printed and the fuzz run would still pass.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
    -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
