# Compiler settings and the few functions that all folders use.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g1")
set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g1 -fno-omit-frame-pointer -D_GLIBCXX_ASSERTIONS")

set(KELVO_SANITIZE "" CACHE STRING "Value of -fsanitize=, empty for none")
option(KELVO_COVERAGE "Count which lines run; with clang" OFF)

find_program(KELVO_CCACHE ccache)
if(KELVO_CCACHE)
  # Without it nothing that uses precompiled headers is found again.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${KELVO_CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${KELVO_CCACHE})
endif()

add_library(kelvo_options INTERFACE)
target_compile_options(kelvo_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Werror>)
target_include_directories(kelvo_options INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_definitions(kelvo_options INTERFACE BOOST_BIND_GLOBAL_PLACEHOLDERS BOOST_ALLOW_DEPRECATED_HEADERS)
if(KELVO_COVERAGE)
  target_compile_options(kelvo_options INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(kelvo_options INTERFACE -fprofile-instr-generate)
endif()
if(KELVO_SANITIZE)
  target_compile_options(kelvo_options INTERFACE -fsanitize=${KELVO_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kelvo_options INTERFACE -fsanitize=${KELVO_SANITIZE})
  if(KELVO_SANITIZE MATCHES "undefined")
    # The check of vtable pointers probes memory through a pipe, and reports sound objects when a test has used up the
    # descriptors on purpose.
    target_compile_options(kelvo_options INTERFACE -fno-sanitize=vptr)
  endif()
  if(KELVO_SANITIZE MATCHES "thread")
    # gcc warns that fences are not modelled; boost::shared_ptr does not rely on them.
    # Nor does it follow the life of temporaries through the instrumentation.
    target_compile_options(kelvo_options INTERFACE -Wno-tsan -Wno-maybe-uninitialized)
  endif()
endif()

# kelvo_library(NAME dep...): one library from the sources of the current folder.
function(kelvo_library name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  if(sources)
    add_library(${name} STATIC ${sources} ${headers})
    target_link_libraries(${name} PUBLIC kelvo_options ${ARGN})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE kelvo_options ${ARGN})
  endif()
endfunction()

# kelvo_program(NAME dep...): one program from the sources of the current folder.
function(kelvo_program name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE kelvo_options ${ARGN})
endfunction()

# kelvo_unit_tests(NAME dep...): the unit tests of the current folder, one ctest entry a case.
function(kelvo_unit_tests name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE kelvo_options ${ARGN} GTest::gtest GTest::gmock GTest::gtest_main)
  # What is tested is optimised, the tests themselves need not be: it halves the time to compile them.
  target_compile_options(${name} PRIVATE -O0)
  target_precompile_headers(${name} REUSE_FROM test_headers)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS unit TIMEOUT 120)
  add_dependencies(unit_tests ${name})
endfunction()
