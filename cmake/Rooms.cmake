# A room is one folder, one library target and the list of rooms that it may use.
# What a room does not name it cannot include from without failing to link.

# Compiling files of a room together, the standard library's headers before all, takes half the time and is what the tests' builds do. The
# lint compiles each alone, which proves that it includes what it uses. Those named after the target have internal names that others of the
# room have too, and stay alone.
option(KESTRINE_TOGETHER "Compile the files of a room in groups" OFF)
function(kestrine_together name)
  set_target_properties(${name} PROPERTIES UNITY_BUILD ${KESTRINE_TOGETHER} UNITY_BUILD_BATCH_SIZE 8
    UNITY_BUILD_CODE_BEFORE_INCLUDE "// NOLINTNEXTLINE(bugprone-suspicious-include): this is what such a file is for.")
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# What most rooms include anyway. Called once, before the rooms.
function(kestrine_precompiled)
  add_library(kestrine_pch STATIC "${PROJECT_SOURCE_DIR}/cmake/Precompiled.cpp")
  # A precompiled header is taken only where fmt's own macro stands as it did here; it means nothing to rooms without fmt.
  target_compile_definitions(kestrine_compile INTERFACE $<TARGET_PROPERTY:fmt::fmt,INTERFACE_COMPILE_DEFINITIONS>)
  target_link_libraries(kestrine_pch PRIVATE kestrine_compile)
  if(KESTRINE_TOGETHER)
    target_precompile_headers(kestrine_pch PRIVATE <algorithm> <array> <atomic> <chrono> <cstdint> <functional> <map> <memory> <mutex> <optional>
      <span> <string> <string_view> <system_error> <thread> <utility> <variant> <vector> <fmt/format.h>)
  endif()
endfunction()

# kestrine_room(NAME USES target... [ALONE file...] [FOLDERS folder...]): a library of every *.cpp in the current folder but main.cpp. ALONE:
# files that are never compiled together with others. FOLDERS: sub-folders whose files belong to it too. script/lint reads the lists, and holds
# each include against them.
function(kestrine_room name)
  cmake_parse_arguments(ROOM "" "" "USES;ALONE;FOLDERS" ${ARGN})
  list(TRANSFORM ROOM_FOLDERS APPEND "/*.cpp")
  file(GLOB sources CONFIGURE_DEPENDS "*.cpp" ${ROOM_FOLDERS})
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  if(NOT sources)
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE kestrine_compile ${ROOM_USES})
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC kestrine_compile ${ROOM_USES})
  kestrine_together(${name} ${ROOM_ALONE})
  if(KESTRINE_TOGETHER)
    target_precompile_headers(${name} REUSE_FROM kestrine_pch)
  endif()
endfunction()

# kestrine_shelves(ROOM SHELF...): a room that is large enough to have shelves. Each is a sub-folder and a target ROOM_SHELF of its own, with a
# list of its own of what it may use; the room is the sum of them.
function(kestrine_shelves room)
  set(targets ${ARGN})
  list(TRANSFORM targets PREPEND "${room}_")
  foreach(shelf ${ARGN})
    add_subdirectory(${shelf})
  endforeach()
  add_library(${room} INTERFACE)
  target_link_libraries(${room} INTERFACE ${targets})
endfunction()

# kestrine_tests(NAME USES target... [ALONE file...] [LABELS l...]): one test program of every *.cpp in the current folder, so that no
# test file can be left out by mistake; each test case becomes one CTest test. tests/costs.cmake says which of them go first, and
# tests/timeout.cmake how they are ended sooner when they hang.
include(GoogleTest)
function(kestrine_tests name)
  cmake_parse_arguments(TESTS "" "" "USES;ALONE;LABELS" ${ARGN})
  # Only for a test that hangs: a busy machine may take many times as long as a quiet one.
  set(TESTS_TIMEOUT 1200)
  file(GLOB sources CONFIGURE_DEPENDS "*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE kestrine_test_support ${TESTS_USES})
  target_precompile_headers(${name} REUSE_FROM kestrine_test_pch)
  kestrine_together(${name} ${TESTS_ALONE})
  # An empty value would not arrive as one.
  set(labels)
  if(TESTS_LABELS)
    set(labels LABELS "${TESTS_LABELS}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST NO_PRETTY_VALUES DISCOVERY_TIMEOUT 600 TEST_PREFIX "${name}."
    PROPERTIES TIMEOUT ${TESTS_TIMEOUT} ENVIRONMENT KESTRINE_TEST_ENDS_WITH_RUNNER=1 ${labels})
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${PROJECT_SOURCE_DIR}/tests/costs.cmake"
    "${PROJECT_SOURCE_DIR}/tests/timeout.cmake")
endfunction()
