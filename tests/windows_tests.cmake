# The tests of the Windows build, run under Wine (CMAKE_CROSSCOMPILING_EMULATOR)
# by scripts/test.sh --windows.
#
# Left out here, and run on POSIX only:
#   platform_test.cpp         the POSIX stand-ins for the Win32 calls and
#                             those around the dialog
#   the abort tests that post keys (services_test.cpp, host_abort.c):
#                             Windows does not count posted keys as input
#   the box and profile tests marked TL_POSIX_ONLY: the box is a window,
#                             the profile lives in the Windows directory
#   cli_dialog_test.sh        the terminal dialog of the tool
#   package_test.sh           the Linux install tree, SONAME and pkg-config
# The unit tests link the library's objects with the counting layer of
# platform/windows/counting.cpp; the host programs and the tool link the DLL.

# GoogleTest from Debian's sources, built with the cross compiler.
set(TL_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources for the cross build")
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
add_subdirectory(${TL_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)

file(GLOB TL_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp
     ${CMAKE_CURRENT_SOURCE_DIR}/support/*.cpp)
list(REMOVE_ITEM TL_TEST_SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/platform_test.cpp)
add_executable(tolimage_tests ${TL_TEST_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/harness.cpp)
target_include_directories(tolimage_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(tolimage_tests PRIVATE tolimage_internal gtest gtest_main)
# Every test file sees the counting layer's names, as the library does.
target_compile_options(tolimage_tests PRIVATE -include platform/win32.h)
target_compile_definitions(tolimage_tests PRIVATE
  TL_FIXTURES="${CMAKE_CURRENT_SOURCE_DIR}/fixtures"
  TL_SAMPLES="${PROJECT_SOURCE_DIR}/samples"
  TL_CRASHERS="${PROJECT_SOURCE_DIR}/fuzz/crashers")
# One Wine process runs them all: starting Wine per test would cost more
# than the tests.
add_test(NAME unit.all COMMAND tolimage_tests --gtest_brief=1)
set_tests_properties(unit.all PROPERTIES ENVIRONMENT "TL_TEST=1" TIMEOUT 900)

# The host programs in C, against the DLL through its import library.
# host_abort posts the user's keys to its own queue, which Windows does not
# count as input: POSIX only.
file(GLOB TL_HOST_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/host/*.c)
list(REMOVE_ITEM TL_HOST_SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/host/host_abort.c)
foreach(src ${TL_HOST_SOURCES})
  get_filename_component(name ${src} NAME_WE)
  add_executable(${name} ${src})
  target_link_libraries(${name} PRIVATE tolimage)
  target_compile_definitions(${name} PRIVATE
    TL_FIXTURES="${CMAKE_CURRENT_SOURCE_DIR}/fixtures"
    TL_SAMPLES="${PROJECT_SOURCE_DIR}/samples")
  add_test(NAME host.${name} COMMAND ${name})
endforeach()

# Every export called, and the callbacks called back, with the stack 4, 8
# and 12 bytes past a 16-byte boundary, as hosts of other 32-bit compilers
# call them: the same results as from an aligned stack.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_executable(host_stack ${CMAKE_CURRENT_SOURCE_DIR}/windows/host_stack.c)
  target_include_directories(host_stack PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/host)
  target_link_libraries(host_stack PRIVATE tolimage)
  target_compile_definitions(host_stack PRIVATE
    TL_FIXTURES="${CMAKE_CURRENT_SOURCE_DIR}/fixtures"
    TL_SAMPLES="${PROJECT_SOURCE_DIR}/samples")
  add_test(NAME host.stack COMMAND host_stack)
endif()

# The DLL's exports, imports and format.
add_test(NAME exports.exact COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check_exports.sh $<TARGET_FILE:tolimage>
         ${CMAKE_CURRENT_SOURCE_DIR}/exports.txt)

# The tool on the bundled samples, run through Wine.
add_test(NAME cli.samples COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_test.sh $<TARGET_FILE:tolimage_cli>
         ${PROJECT_SOURCE_DIR}/samples ${CMAKE_CURRENT_SOURCE_DIR}/fixtures)
set_tests_properties(cli.samples PROPERTIES ENVIRONMENT "TL_EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}")

# The same files through this build and the native one: the same pixels,
# headers, exit statuses and reports (scripts/test.sh --windows passes the
# native tool).
set(TL_NATIVE_TOOL "" CACHE FILEPATH "The native build's tolimage, to compare the Windows build with")
if(TL_NATIVE_TOOL AND CMAKE_CROSSCOMPILING_EMULATOR)
  add_test(NAME compare.native COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/compare_platforms.sh ${TL_NATIVE_TOOL}
           $<TARGET_FILE:tolimage_cli> ${CMAKE_CROSSCOMPILING_EMULATOR} ${CMAKE_CURRENT_SOURCE_DIR}/fixtures
           ${PROJECT_SOURCE_DIR}/samples)
  set_tests_properties(compare.native PROPERTIES TIMEOUT 900)
endif()
