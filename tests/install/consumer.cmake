# Run with cmake -P; see CMakeLists.txt next to this file for the variables it expects.
#   MODE=find_package      install ZTCORE_BUILD_DIR into a scratch prefix, build and run
#                          consumer/ against it
#   MODE=add_subdirectory  configure subdirectory/, which pulls in ZTCORE_REPOSITORY, and check
#                          that the library's tests, examples and benchmarks stay out of it
foreach(var MODE ZTCORE_BUILD_DIR ZTCORE_REPOSITORY CONSUMERS_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "consumer.cmake: ${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${rc}): ${command}\n${out}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})

set(configure_args)
if(GENERATOR)
  list(APPEND configure_args -G ${GENERATOR})
endif()
if(CXX_COMPILER)
  list(APPEND configure_args -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
endif()
if(QT5_DIR)
  list(APPEND configure_args -DQt5_DIR=${QT5_DIR})
endif()
# A sanitized library can only be linked into a sanitized program.
if(SANITIZE)
  list(APPEND configure_args "-DCMAKE_CXX_FLAGS=-fsanitize=${SANITIZE}"
                             "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=${SANITIZE}")
endif()

if(MODE STREQUAL "find_package")
  set(prefix ${WORK_DIR}/prefix)
  run(${CMAKE_COMMAND} --install ${ZTCORE_BUILD_DIR} --prefix ${prefix})
  # Flat headers: consumers include every class by its bare file name.
  foreach(header ztmifound.h logger.h ztliblevelinterface.h ztcore_export.h)
    if(NOT EXISTS ${prefix}/include/ztcore/${header})
      message(FATAL_ERROR "not installed: include/ztcore/${header}")
    endif()
  endforeach()
  run(${CMAKE_COMMAND} -S ${CONSUMERS_DIR}/consumer -B ${WORK_DIR}/build ${configure_args}
      -DCMAKE_PREFIX_PATH=${prefix})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  run(${WORK_DIR}/build/consumer)
elseif(MODE STREQUAL "add_subdirectory")
  run(${CMAKE_COMMAND} -S ${CONSUMERS_DIR}/subdirectory -B ${WORK_DIR}/build ${configure_args}
      -DZTCORE_REPOSITORY=${ZTCORE_REPOSITORY})
  # Configuring is enough: the consumer's link to ZtCore::core must resolve, and the library's
  # own tests, examples and benchmarks must not be part of the consumer's build.
  foreach(dir tests examples bench)
    if(EXISTS ${WORK_DIR}/build/ztcore/${dir})
      message(FATAL_ERROR "add_subdirectory() also brought in the library's ${dir}")
    endif()
  endforeach()
  execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build --target help
                  OUTPUT_VARIABLE targets RESULT_VARIABLE rc)
  if(rc EQUAL 0 AND targets MATCHES "tst_|bench_")
    message(FATAL_ERROR "test or benchmark targets in the consumer's build:\n${targets}")
  endif()
else()
  message(FATAL_ERROR "consumer.cmake: unknown MODE ${MODE}")
endif()
