# Compile settings shared by every target of the project.
function(orv_settings target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(ORV_SANITIZE)
    # GCC's flow analysis misreads Boost.Signals2 once instrumented; the Release build still checks it.
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
                           -fno-sanitize-recover=undefined -Wno-maybe-uninitialized)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
  if(ORV_FUZZ AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # Coverage feedback from the whole product, not only the fuzz targets' own files.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                           -fno-sanitize-recover=undefined)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
endfunction()

# orv_add_test(name SOURCES ... LIBS ...): one GoogleTest executable, its cases registered with CTest.
function(orv_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  orv_settings(${name})
  target_link_libraries(${name} PRIVATE ${T_LIBS} tav_test_support GTest::gtest GTest::gmock GTest::gtest_main)
  # Some suites drive the command-line host and its plug-in.
  add_dependencies(${name} tavtransform TavTransformFunc)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120)
endfunction()
