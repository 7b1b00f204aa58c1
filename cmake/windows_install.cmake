# The zip a Windows host developer unpacks (`cpack -G ZIP` in the build
# folder): tolimage-<version>-win32.zip or -win64.zip, holding
#   bin/tolimage.dll, bin/tolimage.exe      the stripped DLL and the tool
#   lib/tolimage.lib, lib/libtolimage.dll.a  import libraries, Microsoft and GNU
#   lib/cmake/TolImage/                      find_package(TolImage)
#   include/tolimage.h                       the exports (no POSIX-only header)
#   README.txt, tolimage.txt                 the README and the tool's manual
include(CMakePackageConfigHelpers)
set(TL_CMAKE_DIR lib/cmake/TolImage)

install(TARGETS tolimage EXPORT TolImageTargets RUNTIME DESTINATION bin ARCHIVE DESTINATION lib
        INCLUDES DESTINATION include)
install(TARGETS tolimage_cli RUNTIME DESTINATION bin)
if(TL_LLVM_DLLTOOL)
  install(FILES ${PROJECT_BINARY_DIR}/tolimage.lib DESTINATION lib)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/include/tolimage.h DESTINATION include)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION . RENAME README.txt)
# The manual page as plain text, as man shows it (its source where there is no man).
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/tolimage.txt
  COMMAND sh -c "MANWIDTH=80 man -l '${PROJECT_SOURCE_DIR}/cli/tolimage.1' 2>/dev/null | col -bx > '${PROJECT_BINARY_DIR}/tolimage.txt'; [ -s '${PROJECT_BINARY_DIR}/tolimage.txt' ] || cp '${PROJECT_SOURCE_DIR}/cli/tolimage.1' '${PROJECT_BINARY_DIR}/tolimage.txt'"
  DEPENDS ${PROJECT_SOURCE_DIR}/cli/tolimage.1 VERBATIM)
add_custom_target(tolimage_manual_text ALL DEPENDS ${PROJECT_BINARY_DIR}/tolimage.txt)
install(FILES ${PROJECT_BINARY_DIR}/tolimage.txt DESTINATION .)

install(EXPORT TolImageTargets NAMESPACE TolImage:: DESTINATION ${TL_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TolImageConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/TolImageConfig.cmake INSTALL_DESTINATION ${TL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TolImageConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TolImageConfig.cmake ${PROJECT_BINARY_DIR}/TolImageConfigVersion.cmake
        DESTINATION ${TL_CMAKE_DIR})

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(TL_ZIP_ARCH win32)
else()
  set(TL_ZIP_ARCH win64)
endif()
set(CPACK_PACKAGE_NAME tolimage)
set(CPACK_PACKAGE_VENDOR "TolImage")
set(CPACK_PACKAGE_FILE_NAME tolimage-${PROJECT_VERSION}-${TL_ZIP_ARCH})
set(CPACK_GENERATOR ZIP)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
set(CPACK_STRIP_FILES ON)  # the tool too; the DLL keeps its link to tolimage.dll.debug
include(CPack)
