# Build options shared by every target of the project.
option(SLF_BUILD_TESTS "Build the unit and integration tests" ON)
option(SLF_BUILD_BENCH "Build the benchmarks" ON)
option(SLF_WERROR "Treat warnings in our code as errors" OFF)
option(SLF_FUZZ "Build the libFuzzer targets under fuzz/ (clang only; its own build folder)" OFF)
set(SLF_SANITIZER "" CACHE STRING "Sanitizer build: empty, 'address' (ASan+UBSan) or 'thread' (TSan)")
set_property(CACHE SLF_SANITIZER PROPERTY STRINGS "" address thread)

# Warnings apply to our code only; they are attached per target through
# slf_warnings so that third-party headers included as SYSTEM stay quiet.
add_library(slf_warnings INTERFACE)
target_compile_options(slf_warnings INTERFACE -Wall -Wextra)
if(SLF_WERROR)
  target_compile_options(slf_warnings INTERFACE -Werror)
endif()

# GCC 12's flow analysis gives false maybe-uninitialized warnings inside the
# standard library (std::regex, std::function) once sanitizer instrumentation
# is in; the normal build keeps the warning.
if(NOT SLF_SANITIZER STREQUAL "")
  add_compile_options(-Wno-maybe-uninitialized)
endif()

if(SLF_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(SLF_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT SLF_SANITIZER STREQUAL "")
  message(FATAL_ERROR "SLF_SANITIZER must be empty, 'address' or 'thread'")
endif()

# The fuzz build instruments every library for libFuzzer's coverage and
# runs it under ASan+UBSan; only the fuzz targets link libFuzzer's main.
if(SLF_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "SLF_FUZZ needs clang (configure with CC=clang CXX=clang++)")
  endif()
  if(NOT SLF_SANITIZER STREQUAL "")
    message(FATAL_ERROR "SLF_FUZZ brings its own sanitizers; leave SLF_SANITIZER empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

# slf_add_test(NAME SOURCES... LIBS...) builds one GoogleTest binary and
# registers its cases with CTest. LABELS: "unit" runs everywhere (also under
# the sanitizers), "integration" needs the real service and engine.
# TEST_FILTER (a GoogleTest filter) keeps cases out of CTest, such as the body
# of a child process that a test starts. SERVICE: the test runs the real
# service (tests/support/ServiceProcess.h): it is an integration test and
# gets the service's and the test pages' paths. RESOURCE_LOCK: a CTest
# resource its cases hold. TEST_PREFIX: put before each case's name in CTest.
function(slf_add_test name)
  cmake_parse_arguments(T "SERVICE" "LABEL;TIMEOUT;TEST_FILTER;RESOURCE_LOCK;TEST_PREFIX" "SOURCES;LIBS" ${ARGN})
  if(T_SERVICE AND NOT T_LABEL)
    set(T_LABEL integration)
  endif()
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main slf_warnings)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  if(T_SERVICE)
    target_compile_definitions(${name} PRIVATE
      SLF_TEST_HELPER_PATH="$<TARGET_FILE:StreamloftCEFOverlayHelper>"
      SLF_TEST_PAGES_DIR="${PROJECT_SOURCE_DIR}/tests/pages")
    add_dependencies(${name} StreamloftCEFOverlayHelper)
  endif()
  if(NOT T_TEST_FILTER)
    set(T_TEST_FILTER "*")
  endif()
  set(lock)
  if(T_RESOURCE_LOCK)
    set(lock RESOURCE_LOCK ${T_RESOURCE_LOCK})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 TEST_FILTER ${T_TEST_FILTER} TEST_PREFIX "${T_TEST_PREFIX}"
                       PROPERTIES LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT} ${lock})
endfunction()

# The second engine port, over WebKitGTK (its packages are among those
# scripts/install-deps installs); a machine without WebKitGTK turns it off.
option(SLF_ENGINE_GTK "Build the WebKitGTK engine port beside the WPE one" ON)
