# Run with cmake -P; see CMakeLists.txt next to this file for the variables it expects.
#   MODE=find_package      install ZTCORE_BUILD_DIR into a scratch prefix, build and run
#                          consumer/ against it; with EXAMPLES, it also reads the installed example
#                          modules' metadata
#   MODE=add_subdirectory  configure subdirectory/, which pulls in ZTCORE_REPOSITORY, and check
#                          that the library's tests, examples and benchmarks stay out of it
#   MODE=module            write a module project with scripts/new-module, build and test it
#                          against the installed package alone, run it in the installed zthost
#                          (with EXAMPLES); check the bad inputs of new-module and ztcore_add_module
#   MODE=codeblocks        build every C++ block of the README and docs/modules.md against the
#                          installed package
foreach(var MODE ZTCORE_BUILD_DIR ZTCORE_REPOSITORY CONSUMERS_DIR WORK_DIR LIBDIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "consumer.cmake: ${var} is not set")
  endif()
endforeach()

# Every command has a bound: nothing here may hang the test run.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out
                  TIMEOUT 600)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${rc}): ${command}\n${out}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

# Runs a command that must fail with `expected` in its output.
function(run_failing expected)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out
                  TIMEOUT 120)
  string(REPLACE ";" " " command "${ARGN}")
  if(rc EQUAL 0 OR NOT out MATCHES "${expected}")
    message(FATAL_ERROR "expected a failure saying \"${expected}\" (${rc}): ${command}\n${out}")
  endif()
endfunction()

function(expect_in text)
  foreach(wanted IN LISTS ARGN)
    string(FIND "${text}" "${wanted}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "missing \"${wanted}\" in:\n${text}")
    endif()
  endforeach()
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

set(prefix ${WORK_DIR}/prefix)
if(NOT MODE STREQUAL "add_subdirectory")
  run(${CMAKE_COMMAND} --install ${ZTCORE_BUILD_DIR} --prefix ${prefix})
  list(APPEND configure_args -DCMAKE_PREFIX_PATH=${prefix})
endif()

if(MODE STREQUAL "find_package")
  # Flat headers, also reachable as <ztcore/...>: consumer/ uses both forms.
  foreach(header ztmifound.h logger.h ztliblevelinterface.h ztcore_export.h ztmodulelibrary.h)
    if(NOT EXISTS ${prefix}/include/ztcore/${header})
      message(FATAL_ERROR "not installed: include/ztcore/${header}")
    endif()
  endforeach()
  run(${CMAKE_COMMAND} -S ${CONSUMERS_DIR}/consumer -B ${WORK_DIR}/build ${configure_args})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  run(${WORK_DIR}/build/consumer)
  if(EXAMPLES)
    # Each example module's metadata, read from the file without loading it.
    file(GLOB modules ${prefix}/${LIBDIR}/ztcore/modules/*.dll)
    run(${WORK_DIR}/build/consumer ${modules})
    expect_in("${run_output}"
      "signalgenerator.dll: SignalGenerator 1.0.0 example ZtMIStream 1.2.0 \"Sine, square"
      "processing.dll: Processing 1.0.0 example ZtMIStream 1.2.0 \"Gain and offset stage\""
      "plot.dll: Plot 1.0.0 example ZtMIExtended 1.2.0 \"Curve plot\""
      "registerdevice.dll: RegisterDevice 1.0.0 example ZtMIExtended 1.2.0 \"Simulated"
      "poller.dll: Poller 1.0.0 example ZtMIExtended 1.2.0 \"Polls a register")
  endif()
elseif(MODE STREQUAL "module")
  set(kit ${ZTCORE_REPOSITORY}/scripts/new-module)
  set(project ${WORK_DIR}/greeter)
  # Bad input writes nothing.
  run_failing("not a C\\+\\+ identifier" ${kit} 9lives ${WORK_DIR}/bad)
  file(MAKE_DIRECTORY ${WORK_DIR}/full)
  file(WRITE ${WORK_DIR}/full/keep.txt "")
  run_failing("not an empty folder" ${kit} Greeter ${WORK_DIR}/full)
  file(GLOB written ${WORK_DIR}/bad ${WORK_DIR}/full/*.*)
  if(NOT written STREQUAL "${WORK_DIR}/full/keep.txt")
    message(FATAL_ERROR "new-module wrote after refusing: ${written}")
  endif()
  foreach(case "SOURCES a.cpp|NAME[ \n]+is[ \n]+missing" "NAME A|SOURCES[ \n]+is[ \n]+missing")
    string(REPLACE "|" ";" case "${case}")
    list(GET case 0 arguments)
    list(GET case 1 complaint)
    file(WRITE ${WORK_DIR}/call.cmake
      "include(${prefix}/${LIBDIR}/cmake/ZtCore/ZtCoreModule.cmake)\n"
      "ztcore_add_module(a ${arguments})\n")
    run_failing("${complaint}" ${CMAKE_COMMAND} -P ${WORK_DIR}/call.cmake)
  endforeach()

  run(${kit} Greeter --stream ${project})
  run(${CMAKE_COMMAND} -S ${project} -B ${project}/build ${configure_args})
  run(${CMAKE_COMMAND} --build ${project}/build)
  run(${CMAKE_COMMAND} -E chdir ${project}/build ${CMAKE_CTEST_COMMAND} --output-on-failure)
  run_failing("need[ \n]+Qt's[ \n]+lrelease" ${CMAKE_COMMAND} -S ${project}
    -B ${project}/build-nolrelease ${configure_args}
    -DCMAKE_DISABLE_FIND_PACKAGE_Qt5LinguistTools=ON)

  if(EXAMPLES)
    # The installed zthost runs the module from its settings file: the module loads, the
    # option from the settings file reaches it, its action is in its menu, its German
    # translation is used.
    run(${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen
        ${prefix}/bin/zthost ${project}/greeter.ini ${project}/build --locale de
        --translations ${project}/build --state ${WORK_DIR}/state.ini --quit-after 1)
    expect_in("${run_output}" "Load module Greeter"
      "Gruß ist Hello from the settings file" "menu Greeter: Hallo sagen")
  endif()
elseif(MODE STREQUAL "codeblocks")
  set(blocks ${WORK_DIR}/blocks)
  file(MAKE_DIRECTORY ${blocks})
  foreach(doc README.md docs/modules.md)
    string(MAKE_C_IDENTIFIER ${doc} stem)
    # No semicolons in the program: run() would split it there.
    run(awk -v "out=${blocks}/${stem}" [[
      /^```cpp$/ {
        n++
        file = sprintf("%s_%02d.h", out, n)
        next
      }
      /^```/ {
        file = ""
        next
      }
      file != "" { print > file }
    ]] ${ZTCORE_REPOSITORY}/${doc})
  endforeach()
  run(${CMAKE_COMMAND} -S ${CONSUMERS_DIR}/codeblocks -B ${WORK_DIR}/build ${configure_args}
      -DBLOCKS_DIR=${blocks})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
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
