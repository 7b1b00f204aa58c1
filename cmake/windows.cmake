# tolimage.dll for 32- or 64-bit Windows, cross-built with mingw-w64.
#
# The DLL exports exactly the names of platform/windows/tolimage.def.in,
# undecorated and __stdcall, and carries the C++ and GCC run-times inside,
# so that it imports only system DLLs: a host copies one file.  Beside it
# the build leaves its import library, libtolimage.dll.a.
enable_language(RC)

# The DLL, the tool and the test programs side by side, so that each finds
# tolimage.dll as Windows looks for it: beside the program.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})

# Everything linked for Windows takes the run-times statically, the tool and
# the tests too, so that Wine or a bare Windows needs no mingw DLLs.
add_link_options(-static -static-libgcc -static-libstdc++)

set(TL_DEF_TEXT "")
file(READ ${PROJECT_SOURCE_DIR}/platform/windows/tolimage.def.in TL_DEF_TEXT)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  # No decorations in the 64-bit calling convention.
  string(REGEX REPLACE "@[0-9]+" "" TL_DEF_TEXT "${TL_DEF_TEXT}")
endif()
file(WRITE ${PROJECT_BINARY_DIR}/tolimage.def "${TL_DEF_TEXT}")

function(tl_version_resource target name description filetype)
  set(TL_RC_NAME ${name})
  set(TL_RC_DESCRIPTION "${description}")
  set(TL_RC_FILETYPE ${filetype})
  configure_file(${PROJECT_SOURCE_DIR}/platform/windows/version.rc.in ${PROJECT_BINARY_DIR}/${target}.rc @ONLY)
  target_sources(${target} PRIVATE ${PROJECT_BINARY_DIR}/${target}.rc)
endfunction()

add_library(tolimage SHARED ${TL_SOURCES})
add_library(TolImage::tolimage ALIAS tolimage)
target_include_directories(tolimage PRIVATE ${PROJECT_SOURCE_DIR}
                           PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(tolimage PRIVATE comdlg32 user32)
set_target_properties(tolimage PROPERTIES PREFIX "" OUTPUT_NAME tolimage)
target_link_options(tolimage PRIVATE ${PROJECT_BINARY_DIR}/tolimage.def -Wl,--kill-at)
set_property(TARGET tolimage APPEND PROPERTY LINK_DEPENDS ${PROJECT_BINARY_DIR}/tolimage.def)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # The linker's own import library would carry the names as exported,
  # undecorated; a host's compiler asks for TL_IMAGE_E@8.  dlltool makes
  # one that maps the decorated names onto the undecorated exports.
  add_custom_command(TARGET tolimage POST_BUILD
    COMMAND ${CMAKE_DLLTOOL} --input-def ${PROJECT_BINARY_DIR}/tolimage.def --dllname tolimage.dll
            --output-lib $<TARGET_LINKER_FILE:tolimage> --kill-at
    VERBATIM)
endif()
tl_version_resource(tolimage tolimage.dll "TolImage document image loader" VFT_DLL)

# A release DLL carries no debug sections: they go to tolimage.dll.debug
# beside it, which the DLL names (.gnu_debuglink), so that a debugger or a
# crash report reader finds them.
find_program(TL_OBJCOPY NAMES ${CMAKE_OBJCOPY} objcopy REQUIRED)
add_custom_command(TARGET tolimage POST_BUILD
  COMMAND ${TL_OBJCOPY} --only-keep-debug $<TARGET_FILE:tolimage> $<TARGET_FILE:tolimage>.debug
  COMMAND ${TL_OBJCOPY} --strip-debug --strip-unneeded --add-gnu-debuglink=$<TARGET_FILE:tolimage>.debug
          $<TARGET_FILE:tolimage>
  WORKING_DIRECTORY $<TARGET_FILE_DIR:tolimage>
  VERBATIM)

# The import library of the Microsoft toolchain, tolimage.lib, made from the
# same .def: for 32 bits the decorated names a host's compiler asks for
# (_TL_IMAGE_E@8) map onto the DLL's undecorated exports.
find_program(TL_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
if(TL_LLVM_DLLTOOL)
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(TL_DLLTOOL_MACHINE i386)
  else()
    set(TL_DLLTOOL_MACHINE i386:x86-64)
  endif()
  add_custom_command(TARGET tolimage POST_BUILD
    COMMAND ${TL_LLVM_DLLTOOL} -m ${TL_DLLTOOL_MACHINE} -d ${PROJECT_BINARY_DIR}/tolimage.def -D tolimage.dll
            -l ${PROJECT_BINARY_DIR}/tolimage.lib -k
    VERBATIM)
endif()

# The tests link the library's objects built once more, with the layer that
# counts blocks and files (platform/windows/counting.cpp).
add_library(tolimage_internal STATIC ${TL_SOURCES})
target_include_directories(tolimage_internal PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(tolimage_internal PUBLIC TL_COUNT_CALLS=1)
target_link_libraries(tolimage_internal PUBLIC comdlg32 user32)
