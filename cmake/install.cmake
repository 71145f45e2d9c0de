# Installation: the shared library with its platform library, the public
# header, pkg-config and CMake package files, and the command-line client.
include(CMakePackageConfigHelpers)

set(UD_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/VelmoraUrlDownloader)

# The platform library is installed beside ours: find it there at run time.
set_target_properties(velmora-urldownloader PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS velmora-urldownloader EXPORT VelmoraUrlDownloaderTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Installed programs reach the platform library only at run time, through
# ours; its link interface (SQLite) is for the build tree alone, so that
# find_package needs no SQLite package.
get_target_property(UD_PLATFORM_LINKS velmora-platform INTERFACE_LINK_LIBRARIES)
if(UD_PLATFORM_LINKS)
  list(TRANSFORM UD_PLATFORM_LINKS PREPEND "$<BUILD_INTERFACE:")
  list(TRANSFORM UD_PLATFORM_LINKS APPEND ">")
  set_target_properties(velmora-platform PROPERTIES INTERFACE_LINK_LIBRARIES "${UD_PLATFORM_LINKS}")
endif()
install(TARGETS velmora-platform EXPORT VelmoraUrlDownloaderTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${UD_ROOT}/include/url-downloader.h ${UD_ROOT}/include/url-downloader-extension.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET url-downloader)
  # The client finds the libraries in the installed library folder.
  file(RELATIVE_PATH UD_BIN_TO_LIB /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
  set_target_properties(url-downloader PROPERTIES INSTALL_RPATH "$ORIGIN/${UD_BIN_TO_LIB}")
  install(TARGETS url-downloader RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# pkg-config: the prefix is found from the .pc file's own place, so the
# installed tree can be moved (and installed with --prefix).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(UD_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH UD_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" UD_PC_TO_PREFIX "${UD_PC_TO_PREFIX}")
  set(UD_PC_PREFIX "\${pcfiledir}/${UD_PC_TO_PREFIX}")
endif()
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(UD_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(UD_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/velmora-urldownloader.pc.in
  ${CMAKE_BINARY_DIR}/velmora-urldownloader.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/velmora-urldownloader.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# CMake: find_package(VelmoraUrlDownloader) gives
# VelmoraUrlDownloader::velmora-urldownloader.
install(EXPORT VelmoraUrlDownloaderTargets NAMESPACE VelmoraUrlDownloader::
  DESTINATION ${UD_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VelmoraUrlDownloaderConfig.cmake.in
  ${CMAKE_BINARY_DIR}/VelmoraUrlDownloaderConfig.cmake
  INSTALL_DESTINATION ${UD_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VelmoraUrlDownloaderConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VelmoraUrlDownloaderConfig.cmake
  ${CMAKE_BINARY_DIR}/VelmoraUrlDownloaderConfigVersion.cmake
  DESTINATION ${UD_INSTALL_CMAKEDIR})
