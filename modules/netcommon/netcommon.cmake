# The ZeroMQ channel modules (netpublisher, netsubscriber, netserver, netclient) share the wire
# envelope, its CBOR payload codec and the socket plumbing through the static library
# ztnetcommon. Each of them (and their tests) includes this file; the first include defines the
# library, and without cppzmq none is defined and the including folder leaves itself out.
include_guard(GLOBAL)

find_package(cppzmq QUIET)
if(NOT cppzmq_FOUND)
  message(STATUS "ZtCore: cppzmq not found (Debian: cppzmq-dev, libzmq3-dev), "
                 "the network modules are not built")
  return()
endif()

set(ztnet_dir ${CMAKE_CURRENT_LIST_DIR})
add_library(ztnetcommon STATIC
  ${ztnet_dir}/netenvelope.cpp ${ztnet_dir}/netenvelope.h
  ${ztnet_dir}/netsocket.cpp ${ztnet_dir}/netsocket.h)
set_target_properties(ztnetcommon PROPERTIES POSITION_INDEPENDENT_CODE ON AUTOMOC ON)
target_include_directories(ztnetcommon PUBLIC ${ztnet_dir})
target_link_libraries(ztnetcommon PUBLIC ZtCore::core cppzmq PRIVATE ztcore_warnings)

# ztnet_add_module(<target> NAME <Name> DESCRIPTION <text> SOURCES <files...>)
function(ztnet_add_module target)
  cmake_parse_arguments(ARG "" "NAME;DESCRIPTION" "SOURCES" ${ARGN})
  ztcore_add_module(${target} NAME ${ARG_NAME} KIND network VERSION 1.0.0 INTERFACE ZtMIExtended
    DESCRIPTION "${ARG_DESCRIPTION}" SOURCES ${ARG_SOURCES}
    OUTPUT_DIRECTORY ${ZTCORE_MODULES_OUTPUT_DIR})
  target_link_libraries(${target} PRIVATE ztnetcommon ztcore_warnings)
endfunction()
