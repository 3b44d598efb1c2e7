# Small helpers shared by every subsystem's CMakeLists.

# brisvale_test(NAME SOURCES ... LIBS ... LABELS unit|gpu|e2e [ENV k=v ...] [TIMEOUT s])
#   unit: no GPU and no display; these also run in the sanitizer build.
#   gpu:  needs a Vulkan device (lavapipe here) with the validation layer.
#   e2e:  needs an X display (the test starts its own Xvfb).
# (tests/install adds one more label, install: `cmake --install` of the build into a scratch prefix.)
function(brisvale_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS;ENV" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE GTest::gtest GTest::gtest_main ${T_LIBS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 600)
  endif()
  set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
  if(T_ENV)
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "${T_ENV}")
  endif()
endfunction()

# brisvale_benchmark(NAME SOURCES ... LIBS ...): a Google Benchmark binary that `make bench` runs.
function(brisvale_benchmark name)
  cmake_parse_arguments(B "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${B_SOURCES})
  target_link_libraries(${name} PRIVATE benchmark::benchmark ${B_LIBS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  set_property(GLOBAL APPEND PROPERTY BRISVALE_BENCHMARKS ${name})
endfunction()
