# Warnings and sanitizers shared by the library, its tests, examples and benchmarks.
add_library(ztcore_warnings INTERFACE)
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  target_compile_options(ztcore_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wsuggest-override)
endif()

if(ZTCORE_SANITIZE)
  message(STATUS "ZtCore: building with -fsanitize=${ZTCORE_SANITIZE}")
  add_compile_options(-fsanitize=${ZTCORE_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${ZTCORE_SANITIZE})
endif()
