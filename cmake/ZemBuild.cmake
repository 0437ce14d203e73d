# Compiler settings of the whole tree, and the helpers by which folders declare their targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(ZEM_SANITIZER "" CACHE STRING "asan, tsan or fuzz")

find_program(ZEM_CCACHE ccache)
if(ZEM_CCACHE)
  # What one checkout has compiled serves every other one; precompiled headers take the two forms of sloppiness.
  set(zem_launcher /usr/bin/env CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_NOHASHDIR=1
    CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} ${ZEM_CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${zem_launcher})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${zem_launcher})
endif()
find_program(ZEM_MOLD mold)
if(ZEM_MOLD)
  add_link_options(-fuse-ld=mold)
endif()

# The daemon runs as root and reads what others send, so a release is built to end where memory is overrun.  The
# sanitizers find more than FORTIFY does and disagree with it, so the other presets go without.
set(zem_hardening "-fstack-protector-strong -fstack-clash-protection -D_FORTIFY_SOURCE=2")
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  string(APPEND zem_hardening " -fcf-protection")
endif()
include(CheckPIESupported)
check_pie_supported()
add_compile_options(-Wformat -Wformat-security)
add_link_options(-Wl,-z,relro -Wl,-z,now)
# Where the tree lies and where it is built must not show in what is built.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)

# Enough for a stack trace; full debug information doubles the build's time and size.
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1 ${zem_hardening}")
set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O2 -g1 ${zem_hardening}")
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1 -fno-omit-frame-pointer")
set(CMAKE_C_FLAGS_DEBUG "-O1 -g1 -fno-omit-frame-pointer")

if(ZEM_SANITIZER STREQUAL "asan")
  # Not optimized: the compiler's passes over instrumented code take longer than the tests gain by them.
  set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g1 -fno-omit-frame-pointer")
  set(CMAKE_C_FLAGS_DEBUG "-O0 -g1 -fno-omit-frame-pointer")
  # The instrumentation hides from the compiler that a Boost optional is tested before it is read.
  set(zem_sanitize -fsanitize=address,undefined -fno-sanitize-recover=undefined -Wno-maybe-uninitialized)
elseif(ZEM_SANITIZER STREQUAL "tsan")
  # Boost.Asio's fences are beside its locks, which the sanitizer does see.
  set(zem_sanitize -fsanitize=thread -Wno-tsan)
elseif(ZEM_SANITIZER STREQUAL "fuzz")
  set(zem_sanitize -fsanitize=fuzzer-no-link,address,undefined)
endif()
add_compile_options(${zem_sanitize})
add_link_options(${zem_sanitize})

find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS thread system filesystem chrono date_time regex program_options)
find_package(OpenSSL REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(BSON REQUIRED IMPORTED_TARGET libbson-1.0)
pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
pkg_check_modules(RDKAFKA REQUIRED IMPORTED_TARGET rdkafka)
pkg_check_modules(PCAP REQUIRED IMPORTED_TARGET libpcap)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
find_package(GTest REQUIRED)
find_package(benchmark REQUIRED)

add_library(zem_options INTERFACE)
target_include_directories(zem_options INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR})
target_compile_options(zem_options INTERFACE -Wall -Wextra -Wpedantic -Werror -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 takes the standard library's string concatenation for a write beyond the string when it inlines it from a
  # precompiled header.
  target_compile_options(zem_options INTERFACE -Wno-array-bounds)
endif()
target_compile_definitions(zem_options INTERFACE
  BOOST_BIND_GLOBAL_PLACEHOLDERS BOOST_ASIO_NO_DEPRECATED BOOST_ASIO_SEPARATE_COMPILATION)
target_link_libraries(zem_options INTERFACE Threads::Threads)

# Most of a source's compile time goes into the standard library's headers.  Sources still include what they use; a
# build with ZEM_PRECOMPILED off tells who does not.
option(ZEM_PRECOMPILED "Compile with precompiled headers" ON)
if(ZEM_PRECOMPILED)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/precompiled/holder.cc CONTENT "int main() { return 0; }\n" @ONLY)
  foreach(kind IN ITEMS library program test)
    if(kind STREQUAL "library")
      add_library(zem_precompiled_${kind} STATIC ${CMAKE_BINARY_DIR}/precompiled/holder.cc)
    else()
      # A program's code is compiled for another place than a library's.
      add_executable(zem_precompiled_${kind} EXCLUDE_FROM_ALL ${CMAKE_BINARY_DIR}/precompiled/holder.cc)
    endif()
    target_precompile_headers(zem_precompiled_${kind} PRIVATE <cmake/precompiled.h>)
    target_link_libraries(zem_precompiled_${kind} PRIVATE zem_options)
  endforeach()
  target_precompile_headers(zem_precompiled_test PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
  target_link_libraries(zem_precompiled_test PRIVATE GTest::gmock GTest::gtest)
  target_compile_options(zem_precompiled_test PRIVATE -O0 -U_FORTIFY_SOURCE)
endif()

# In these sources the same goes for other warnings, which are worth having in all others.
set(zem_false_overflow edge_service.cc lum_handler.cc config_ops_manager.cc high_performance_profile.cc mmode_config_task.cc
  port_opaque_data.cc resync_round.cc dataplane_commands.cc host_setup.cc detection_commands.cc capture_tools.cc node.cc
  firewall_commands.cc borders.cc service_notifier.cc world_services.cc world_traces.cc vm_worker.cc sweep/sweep_host.cc
  sweep/sweep_manager.cc sweep/sweep_shape.cc sweep/sweep_vm.cc)

# zem_precompiled(target library|program|test)
function(zem_precompiled target kind)
  if(ZEM_PRECOMPILED)
    target_precompile_headers(${target} REUSE_FROM zem_precompiled_${kind})
    get_target_property(sources ${target} SOURCES)
    foreach(source IN LISTS sources)
      if(source IN_LIST zem_false_overflow)
        set_source_files_properties(${source} PROPERTIES COMPILE_OPTIONS
          "-Wno-stringop-overflow;-Wno-stringop-overread;-Wno-restrict")
      endif()
    endforeach()
  endif()
endfunction()

# zem_library(name SOURCES ... LINK ...): a folder's static library.
function(zem_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK;PRIVATE_LINK" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC zem_options ${ARG_LINK} PRIVATE ${ARG_PRIVATE_LINK})
  zem_precompiled(${name} library)
endfunction()

# zem_folder(name LINK ... PRIVATE_LINK ...): the library of a folder in which every class is one source.
function(zem_folder name)
  cmake_parse_arguments(ARG "" "" "LINK;PRIVATE_LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} *.cc)
  zem_library(${name} SOURCES ${sources} LINK ${ARG_LINK} PRIVATE_LINK ${ARG_PRIVATE_LINK})
endfunction()

# zem_executable(name SOURCES ... LINK ...)
function(zem_executable name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zem_options ${ARG_LINK})
  zem_precompiled(${name} program)
endfunction()

# zem_test(name LABEL unit|e2e SOURCES ... LINK ...): a GoogleTest program; each case is a CTest of its own.
# ENVIRONMENT is one NAME=value that each case is started with.
include(GoogleTest)
function(zem_test name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT;ENVIRONMENT" "SOURCES;LINK" ${ARGN})
  if(ZEM_SANITIZER STREQUAL "fuzz")
    return()
  endif()
  if(NOT ARG_LABEL)
    set(ARG_LABEL unit)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zem_options ${ARG_LINK} GTest::gmock GTest::gtest GTest::gtest_main)
  # The code under test is optimized, the cases around it are not: that takes almost half of their compile time.
  target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
  zem_precompiled(${name} test)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT "${ARG_ENVIRONMENT}")
endfunction()

# zem_fuzz(name SOURCE file CORPUS folder LINK ...): a libFuzzer program in the fuzz preset; in the others a test that
# feeds the corpus to the same function.
function(zem_fuzz name)
  cmake_parse_arguments(ARG "" "SOURCE;CORPUS" "LINK" ${ARGN})
  if(ZEM_SANITIZER STREQUAL "fuzz")
    add_executable(${name} ${ARG_SOURCE})
    target_link_libraries(${name} PRIVATE zem_options ${ARG_LINK} -fsanitize=fuzzer)
  else()
    add_executable(${name} ${ARG_SOURCE} ${CMAKE_SOURCE_DIR}/tests/support/corpus_main.cc)
    target_link_libraries(${name} PRIVATE zem_options ${ARG_LINK})
    zem_precompiled(${name} program)
    add_test(NAME ${name}.Corpus COMMAND ${name} ${ARG_CORPUS})
    set_tests_properties(${name}.Corpus PROPERTIES LABELS unit TIMEOUT 120)
  endif()
endfunction()
