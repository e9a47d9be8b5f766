# The one clang configuration that serves both the sanitizer suite and the fuzz targets: the
# project's libraries carry AddressSanitizer, UndefinedBehaviorSanitizer and libFuzzer's coverage
# hooks; the fuzz targets link libFuzzer, everything else links the sanitizers alone. -O1 with line
# tables only: the sanitizers' reports keep their lines and the build stays short.
#   cmake -C scripts/clang-sanitize.cmake -S . -B build/asan
set(CMAKE_CXX_COMPILER clang++ CACHE STRING "")
set(CMAKE_C_COMPILER clang CACHE STRING "")
set(CMAKE_BUILD_TYPE Sanitize CACHE STRING "")
set(CMAKE_CXX_FLAGS "-O1 -gline-tables-only" CACHE STRING "")
set(CMAKE_C_FLAGS "-O1 -gline-tables-only" CACHE STRING "")
# The tests' own code at -O0: under the sanitizers it compiles in half the time of -O1.
set(EMBERLINE_TEST_OPT -O0 CACHE STRING "")
set(EMBERLINE_FUZZ ON CACHE BOOL "")
set(EMBERLINE_BENCH OFF CACHE BOOL "")
