# Shared build helpers: warning flags in one place, one static library per source folder,
# one test executable per library.

add_library(ox_warnings INTERFACE)
target_compile_options(ox_warnings INTERFACE -Wall -Wextra $<$<BOOL:${ORVEX_WERROR}>:-Werror>)

# ox_add_library(<name> [PUBLIC deps...] [PRIVATE deps...])
# Collects every .cpp of the calling folder (not of sub-folders) into the static library
# ox_<name>, with the alias ox::<name>. Sub-folders that hold their own library add themselves.
function(ox_add_library name)
  cmake_parse_arguments(ARG "" "" "PUBLIC;PRIVATE" ${ARGN})
  file(GLOB _sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  file(GLOB _headers CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.h")
  add_library(ox_${name} STATIC ${_sources} ${_headers})
  add_library(ox::${name} ALIAS ox_${name})
  target_include_directories(ox_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src")
  target_link_libraries(ox_${name} PUBLIC ${ARG_PUBLIC} PRIVATE ox_warnings ${ARG_PRIVATE})
endfunction()

# ox_add_test_suite(<name> LIBS libs... [LABELS labels...])
# Builds every *Test.cpp of the calling folder into ox_<name>_tests and registers each
# GoogleTest case with CTest (label "unit" unless given).
function(ox_add_test_suite name)
  cmake_parse_arguments(ARG "" "" "LIBS;LABELS" ${ARGN})
  file(GLOB _sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(NOT _sources)
    return()
  endif()
  add_executable(ox_${name}_tests ${_sources})
  target_link_libraries(ox_${name}_tests PRIVATE ${ARG_LIBS} ox_test_support GTest::gtest GTest::gtest_main
                                                 ox_warnings)
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  include(GoogleTest)
  gtest_discover_tests(ox_${name}_tests DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}")
endfunction()
