# Qwt for Qt 5 (Debian libqwt-qt5-dev). It ships no CMake package and its pkg-config file is not
# everywhere, so the header and the library are looked up directly. Defines the imported target
# ZtCore_Qwt (global, so that the tests can inspect Qwt's own objects) and ZTCORE_QWT_FOUND.
# Included from several folders; the lookup runs once.
if(TARGET ZtCore_Qwt)
  set(ZTCORE_QWT_FOUND ON)
  return()
endif()
find_path(ZTCORE_QWT_INCLUDE_DIR qwt_plot.h PATH_SUFFIXES qwt-qt5 qt5/qwt qwt
  DOC "Folder of Qwt's headers (qwt_plot.h), built for Qt 5")
find_library(ZTCORE_QWT_LIBRARY NAMES qwt-qt5 DOC "Qwt's library, built for Qt 5")
set(ZTCORE_QWT_FOUND OFF)
if(ZTCORE_QWT_INCLUDE_DIR AND ZTCORE_QWT_LIBRARY)
  find_package(Qt5 5.15 REQUIRED COMPONENTS Widgets)
  add_library(ZtCore_Qwt SHARED IMPORTED GLOBAL)
  # Imported include folders are system folders: Qwt's headers stay out of our warnings.
  set_target_properties(ZtCore_Qwt PROPERTIES
    IMPORTED_LOCATION ${ZTCORE_QWT_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ZTCORE_QWT_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES Qt5::Widgets)
  set(ZTCORE_QWT_FOUND ON)
endif()
