# A test that hangs is ended by its TIMEOUT, which is long, since a busy machine may take many times as long as a quiet one. Who does not want to
# wait so long sets KESTRINE_TEST_TIMEOUT, in seconds. Read by ctest, behind the list of tests that the program of this folder has.
if(DEFINED ENV{KESTRINE_TEST_TIMEOUT})
  get_cmake_property(kestrine_lists VARIABLES)
  list(FILTER kestrine_lists INCLUDE REGEX "_tests_TESTS$")
  foreach(kestrine_list ${kestrine_lists})
    set_tests_properties(${${kestrine_list}} PROPERTIES TIMEOUT "$ENV{KESTRINE_TEST_TIMEOUT}")
  endforeach()
endif()
