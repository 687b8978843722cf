# Flags shared by every target of this project. Warnings are errors only where OLM_WERROR asks for
# it (CI does): a newer compiler with new warnings must not stop a user's build. GoogleTest and
# Google Benchmark headers are system headers and never affected.
set(OLM_WARNING_FLAGS -Wall -Wextra)
if(OLM_WERROR)
  list(APPEND OLM_WARNING_FLAGS -Werror)
endif()
set(OLM_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)

function(olm_target_defaults target)
  target_compile_options(${target} PRIVATE ${OLM_WARNING_FLAGS})
  if(OLM_SANITIZE)
    target_compile_options(${target} PRIVATE ${OLM_SANITIZER_FLAGS})
    target_link_options(${target} PRIVATE ${OLM_SANITIZER_FLAGS})
  endif()
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

# olm_library_directory([PUBLIC_HEADERS <headers...>] [TEST_LIBRARIES <targets...>])
# Adds every *.cc of the current directory except *_test.cc and *_benchmark.cc to OlmLiteRt, and
# builds the directory's *_test.cc files into one test executable named after the directory.
function(olm_library_directory)
  cmake_parse_arguments(ARG "" "" "PUBLIC_HEADERS;TEST_LIBRARIES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cc)
  file(GLOB tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc)
  list(FILTER sources EXCLUDE REGEX "_(test|benchmark)\\.cc$")
  target_sources(OlmLiteRt PRIVATE ${sources})
  olm_public_headers(${ARG_PUBLIC_HEADERS})
  target_include_directories(OlmLiteRt PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
  if(tests)
    get_filename_component(dir_name ${CMAKE_CURRENT_SOURCE_DIR} NAME)
    olm_add_test(${dir_name}_tests SOURCES ${tests} LIBRARIES OlmLiteRt olm_test_support ${ARG_TEST_LIBRARIES})
  endif()
endfunction()
