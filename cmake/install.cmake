# Installs the library as others build against it: headers, the versioned
# shared library (and, with TL_STATIC, the archive), the tool and its manual
# page, a CMake package (find_package(TolImage)) and a pkg-config file.
# `cpack -G DEB` in the build folder makes a Debian package of the same.
include(CMakePackageConfigHelpers)

set(TL_TARGETS tolimage)
if(TL_STATIC)
  list(APPEND TL_TARGETS tolimage_static)
endif()
set(TL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TolImage)

install(TARGETS ${TL_TARGETS} EXPORT TolImageTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tolimage_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/include/tolimage.h ${PROJECT_SOURCE_DIR}/include/tolimage_posix.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/cli/tolimage.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)

install(EXPORT TolImageTargets NAMESPACE TolImage:: DESTINATION ${TL_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TolImageConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/TolImageConfig.cmake INSTALL_DESTINATION ${TL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TolImageConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TolImageConfig.cmake ${PROJECT_BINARY_DIR}/TolImageConfigVersion.cmake
        DESTINATION ${TL_CMAKE_DIR} COMPONENT development)

# pkg-config: paths relative to the prefix, so that the installed tree may move.
file(RELATIVE_PATH TL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TL_PC_TO_PREFIX "${TL_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/tolimage.pc.in ${PROJECT_BINARY_DIR}/tolimage.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tolimage.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# The Debian package: one package with the library, headers, tool and manual
# page; its dependencies come from dpkg-shlibdeps.
set(CPACK_PACKAGE_NAME tolimage)
set(CPACK_PACKAGE_VENDOR "TolImage")
set(CPACK_PACKAGE_CONTACT "TolImage developers <tolimage@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION "TolImage reads BMP/DIB, 1-bit PCX, bilevel TIFF (uncompressed, CCITT RLE,\n\
Group 3, Group 4, LZW, PackBits) and RAS files into packed device-independent\n\
bitmaps, and turns them into the packed 1-bit raster of a recognition engine.\n\
This package holds the shared library, its headers, CMake and pkg-config\n\
files, and the tolimage tool.")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
