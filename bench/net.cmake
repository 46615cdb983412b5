# The network modules against bare ZeroMQ sockets, across two processes over loopback. The
# module sources are compiled in, so that each process can make its module without a kernel.
find_package(Qt5 5.15 QUIET COMPONENTS Network)
if(NOT TARGET ztnetcommon OR NOT TARGET Qt5::Network)
  return()
endif()
set(ztnet_src ${PROJECT_SOURCE_DIR}/modules)
ztcore_add_benchmark(bench_net
  SOURCES bench_net.cpp
    ${ztnet_src}/netpublisher/netpublisher.cpp ${ztnet_src}/netsubscriber/netsubscriber.cpp
    ${ztnet_src}/netserver/netserver.cpp ${ztnet_src}/netclient/netclient.cpp
  LIBS ztnetcommon Qt5::Network)
target_include_directories(bench_net PRIVATE ${ztnet_src}/netpublisher ${ztnet_src}/netsubscriber
  ${ztnet_src}/netserver ${ztnet_src}/netclient)
