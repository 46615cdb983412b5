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

# Module libraries are always found as "<lower-case name>.dll", on every platform: the kernel
# builds the file name that way. Plug-ins built by this project follow the same rule.
function(ztcore_module_library target)
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".dll")
endfunction()
