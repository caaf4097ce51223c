# What every target of the project shares, and one helper per kind of target, so that
# a folder's CMakeLists.txt only says what it builds.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_FLAGS_DEV "-O1 -g")
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

find_package(Threads REQUIRED)

add_library(qmutils_flags INTERFACE)
target_include_directories(qmutils_flags INTERFACE ${PROJECT_SOURCE_DIR})
if(MSVC)
  target_compile_options(qmutils_flags INTERFACE /W4 /WX)
else()
  target_compile_options(qmutils_flags INTERFACE -Wall -Wextra -Werror)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # False alarms on "text" + std::string at -O3 (GCC bug 105651).
    target_compile_options(qmutils_flags INTERFACE -Wno-restrict)
  endif()
endif()
if(QMUTILS_SANITIZE)
  target_compile_options(qmutils_flags INTERFACE
    -fsanitize=${QMUTILS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(qmutils_flags INTERFACE -fsanitize=${QMUTILS_SANITIZE})
endif()
if(QMUTILS_BUILD_FUZZ)
  # Coverage of everything guides the fuzzers; only they link libFuzzer's main().
  target_compile_options(qmutils_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(qmutils_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

# qmutils_add_tests(<name>): one test program from all *_test.cpp of the current folder. It links
# the library's objects, hidden names included.
function(qmutils_add_tests name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE qmutils_static qmutils_test_support GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300 ${ARGN})
endfunction()

# qmutils_add_bench(<name> [libraries...]): one benchmark program from <name>.cpp.
function(qmutils_add_bench name)
  add_executable(${name} ${name}.cpp)
  target_link_libraries(${name} PRIVATE qmutils_static benchmark::benchmark ${ARGN})
endfunction()

# qmutils_add_fuzzer(<name>): one libFuzzer program from <name>.cpp.
function(qmutils_add_fuzzer name)
  add_executable(${name} ${name}.cpp)
  target_link_libraries(${name} PRIVATE qmutils_static)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()
