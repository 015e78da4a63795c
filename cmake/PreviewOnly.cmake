# SPDX-License-Identifier: MIT
# The preview decoder and its test alone, for machines the engine is not
# built for here (cross builds run under qemu-user): no libusb, no virtual
# camera, GoogleTest built from Debian's sources with the same compiler.
find_package(Threads REQUIRED)

add_library(qkcam_preview STATIC
  ${PROJECT_SOURCE_DIR}/DevicePTP/PreviewDecode.cpp
  ${PROJECT_SOURCE_DIR}/DevicePTP/PreviewKernels.cpp
  ${PROJECT_SOURCE_DIR}/log/Logger.cpp)
target_include_directories(qkcam_preview PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(qkcam_preview PUBLIC Threads::Threads)

set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)

enable_testing()
include(GoogleTest)
add_executable(preview_decode_test
  ${PROJECT_SOURCE_DIR}/tests/preview/PreviewDecodeTest.cpp
  ${PROJECT_SOURCE_DIR}/tests/common/TestMain.cpp
  ${PROJECT_SOURCE_DIR}/tests/common/TestLog.cpp)
target_link_libraries(preview_decode_test PRIVATE qkcam_preview gtest)
# Emulated, so slower than at home.
gtest_discover_tests(preview_decode_test DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 120
                     PROPERTIES TIMEOUT 600)
