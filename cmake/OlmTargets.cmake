# Flags shared by every target of this project. Warnings are errors only where OLM_WERROR asks for
# it (CI does): a newer compiler with new warnings must not stop a user's build. GoogleTest and
# Google Benchmark headers are system headers and never affected.
set(OLM_WARNING_FLAGS -Wall -Wextra)
if(OLM_WERROR)
  list(APPEND OLM_WARNING_FLAGS -Werror)
endif()
# GCC notes on 32-bit ARM that passing some aggregates changed in GCC 7.1: that concerns code built
# with an older compiler, which nothing here is linked with.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  list(APPEND OLM_WARNING_FLAGS -Wno-psabi)
endif()
# Call traces of the error reports walk through every function of the runtime. On 32-bit ARM the
# compiler otherwise marks each function that cannot throw as not unwindable, and a trace ends at
# the first such frame; the tables cost a few bytes per function and no time.
set(OLM_CODE_FLAGS)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  list(APPEND OLM_CODE_FLAGS -funwind-tables)
endif()
if(OLM_SANITIZE AND OLM_THREAD_SANITIZER)
  message(FATAL_ERROR "OLM_SANITIZE and OLM_THREAD_SANITIZER exclude each other: use two build trees")
endif()
if(OLM_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "OLM_FUZZ needs clang: configure with -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
endif()
set(OLM_SANITIZER_FLAGS)
if(OLM_FUZZ)
  # Everything carries libFuzzer's coverage and the address checks; only the targets get its main.
  set(OLM_SANITIZER_FLAGS -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
      -fno-omit-frame-pointer)
elseif(OLM_SANITIZE)
  set(OLM_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(OLM_THREAD_SANITIZER)
  set(OLM_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
endif()

# Shared libraries are linked with every symbol resolved, but a sanitizer's runtime is linked only
# into executables.
if(OLM_SANITIZER_FLAGS)
  set(OLM_SHARED_LIBRARY_LINK_OPTIONS)
else()
  set(OLM_SHARED_LIBRARY_LINK_OPTIONS -Wl,--no-undefined)
endif()

function(olm_target_defaults target)
  target_compile_options(${target} PRIVATE ${OLM_WARNING_FLAGS} ${OLM_CODE_FLAGS} ${OLM_SANITIZER_FLAGS})
  target_link_options(${target} PRIVATE ${OLM_SANITIZER_FLAGS})
endfunction()

# olm_add_test(<name> SOURCES <files...> [LIBRARIES <targets...>])
# One GoogleTest executable; every TEST in it becomes a CTest test, run in a host-platform
# namespace of its own (tests/support/TestNamespace.h).
function(olm_add_test name)
  if(NOT OLM_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  olm_target_defaults(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} olm_test_main GTest::gtest)
  # A test that calls GTEST_SKIP shows as skipped in CTest, not as passed.
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                       PROPERTIES TIMEOUT 120 SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
endfunction()

# olm_add_fuzzer(<name> SOURCES <files...> [LIBRARIES <targets...>])
# A libFuzzer target for a handler of input that comes from outside the process; built only with
# OLM_FUZZ. scripts/fuzz.sh runs every target of this kind.
function(olm_add_fuzzer name)
  if(NOT OLM_FUZZ)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  olm_target_defaults(${name})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_property(GLOBAL APPEND PROPERTY OLM_FUZZERS ${name})
endfunction()

# The runtime is built in layers, each an object library of its own directory. A layer sees the
# public headers (Realtime/Include), its own directory and what the layers it DEPENDS on export,
# nothing else, so an include against the direction of the layers does not compile. The README's
# layout table gives the direction.
#
# olm_runtime_layer(<target> [PRIVATE_DIRECTORY] DEPENDS <targets...>)
#   Every *.cc of the current directory but *_test.cc and *_benchmark.cc. The directory's headers
#   are visible to the layers above unless PRIVATE_DIRECTORY (a service: its public headers are in
#   Realtime/Include, the rest is its own). The directory's *_test.cc files become one test
#   executable named after the directory, linked with the internal runtime library; they see what
#   the layer sees and the test fakes.
function(olm_runtime_layer target)
  cmake_parse_arguments(ARG "PRIVATE_DIRECTORY" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc)
  list(FILTER sources EXCLUDE REGEX "_(test|benchmark|fuzzer)\\.cc$")
  add_library(${target} OBJECT ${sources})
  olm_target_defaults(${target})
  # Only what the public headers declare leaves the shared library (OlmApi.h).
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  # Calls between the library's own exported functions need not go through the PLT: nothing
  # interposes them.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
  if(ARG_PRIVATE_DIRECTORY)
    target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  else()
    target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  target_link_libraries(${target} PUBLIC OlmRtApi ${ARG_DEPENDS})
  set_property(GLOBAL APPEND PROPERTY OLM_RUNTIME_LAYERS ${target})
  if(tests AND OLM_BUILD_TESTS)
    get_filename_component(dir_name ${CMAKE_CURRENT_SOURCE_DIR} NAME)
    olm_add_test(${dir_name}_tests SOURCES ${tests} LIBRARIES OlmLiteRtInternalCode olm_test_support)
    target_include_directories(${dir_name}_tests PRIVATE $<TARGET_PROPERTY:${target},INCLUDE_DIRECTORIES>)
  endif()
endfunction()

# olm_layer_probe(<name> LAYER <target> INCLUDES <header>)
#   A test that a file of the layer cannot include the header: it compiles a one-line source with
#   exactly the layer's include path and expects the compiler to find no such file.
function(olm_layer_probe name)
  if(NOT OLM_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "LAYER;INCLUDES" "" ${ARGN})
  set(source ${CMAKE_CURRENT_BINARY_DIR}/LayerProbe_${name}.cc)
  file(WRITE ${source} "// Must not compile: ${ARG_LAYER} lies below ${ARG_INCLUDES}.\n#include \"${ARG_INCLUDES}\"\n")
  add_library(LayerProbe_${name} OBJECT EXCLUDE_FROM_ALL ${source})
  target_include_directories(LayerProbe_${name} PRIVATE $<TARGET_PROPERTY:${ARG_LAYER},INCLUDE_DIRECTORIES>)
  add_test(NAME Layering.${name}
           COMMAND ${CMAKE_COMMAND} --build ${CMAKE_BINARY_DIR} --target LayerProbe_${name})
  string(REPLACE "." "\\." header_pattern "${ARG_INCLUDES}")
  set_tests_properties(Layering.${name} PROPERTIES
                       PASS_REGULAR_EXPRESSION "${header_pattern}: No such file"
                       RESOURCE_LOCK olm_build_tree TIMEOUT 120)
endfunction()
