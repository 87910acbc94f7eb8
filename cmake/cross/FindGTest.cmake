# GoogleTest for a target that the distribution ships no library for: built from its source package (libgtest-dev
# puts it into /usr/src/googletest) as part of this build. On the module path of cross builds only.
set(source /usr/src/googletest)
if(NOT EXISTS ${source}/CMakeLists.txt)
  message(FATAL_ERROR "${source} is missing: apt-get install libgtest-dev")
endif()
if(NOT TARGET gtest)
  set(INSTALL_GTEST OFF CACHE BOOL "")
  set(BUILD_GMOCK OFF CACHE BOOL "")
  add_subdirectory(${source} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  # Its warnings are not ours to mend.
  foreach(library gtest gtest_main)
    target_compile_options(${library} PRIVATE -w)
  endforeach()
endif()
set(GTest_FOUND TRUE)

# Read by the tests' folder alone. The conversions of test code are judged by the native builds; where a number's
# width differs here, a warning is enough.
add_compile_options(-Wno-error=conversion)
