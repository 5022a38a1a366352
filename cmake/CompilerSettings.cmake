# One place for what every target of ours is compiled with.
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

# g++ 12 warns falsely on std::string at -O3 (GCC bug 105651), so release stays at -O2.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g")

add_library(kestrine_compile INTERFACE)
target_include_directories(kestrine_compile INTERFACE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}")
target_compile_definitions(kestrine_compile INTERFACE _GNU_SOURCE)
target_compile_options(kestrine_compile INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wconversion -Wno-sign-conversion -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(kestrine_compile INTERFACE -Wthread-safety)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC bug 105651: a false -Wrestrict on std::string concatenation. And g++ takes the enumerators of an enum class for names of the
  # surrounding scope, which they are not; clang looks for shadowing in full.
  target_compile_options(kestrine_compile INTERFACE -Wno-restrict -Wno-shadow -Wshadow=local)
  # Its memory grows to a gigabyte either way before a large unit is done; collecting it less often saves a twelfth of the time.
  add_compile_options("SHELL:--param ggc-min-heapsize=1048576" "SHELL:--param ggc-min-expand=200")
endif()

if(KESTRINE_SANITIZE)
  add_compile_options(-fsanitize=${KESTRINE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KESTRINE_SANITIZE})
  add_compile_definitions(KESTRINE_SANITIZED=1)
  if(KESTRINE_SANITIZE MATCHES "address")
    add_compile_definitions(KESTRINE_ADDRESS_SANITIZED=1)
    # GCC bug 105562: with the address sanitizer g++ 12 takes moved temporaries (of std::variant, std::function) for uninitialised.
    # The other builds keep the warning.
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  endif()
  if(KESTRINE_SANITIZE MATCHES "undefined")
    # RapidJSON's stack counts from a null pointer while it is empty, which clang takes for a fault at the first "[]". And clang's look for an
    # object's type goes through a pipe: in a process without a free descriptor, which tests bring about, it takes every object for a wrong one.
    add_compile_options($<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=pointer-overflow,vptr>)
  endif()
  if(KESTRINE_SANITIZE MATCHES "thread")
    # GCC and clang warn on std::atomic_thread_fence under TSan, which GoogleTest's headers use.
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
  endif()
endif()

# libFuzzer is led by what its input makes the rooms do, so all of the code tells it.
option(KESTRINE_FUZZERS "Build libFuzzer's programs too (clang)" OFF)
if(KESTRINE_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
