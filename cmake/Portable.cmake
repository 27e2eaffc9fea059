# The toolchain of the preset `portable`: programs that start on systems older than the one that builds them.

# Every trial that CMake makes of the compiler reads this file again. Elsewhere the compiler is asked for each time, since
# the scripts may name another one by now.
get_property(ravok_trial GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT ravok_trial AND NOT RAVOK_PORTABLE_COMPILER_IS_ASKED_FOR)
  set(RAVOK_PORTABLE_COMPILER_IS_ASKED_FOR ON)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    "${CMAKE_CURRENT_LIST_DIR}/../scripts/portable-compiler" "${CMAKE_CURRENT_LIST_DIR}/../scripts/cross-compiler.sh")
  execute_process(
    COMMAND "${CMAKE_CURRENT_LIST_DIR}/../scripts/portable-compiler"
    OUTPUT_VARIABLE ravok_compiler
    OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE ravok_compiler_result)
  if(NOT ravok_compiler_result EQUAL 0)
    message(FATAL_ERROR "The compiler of the portable build could not be installed; the reason stands above")
  endif()
  set(RAVOK_PORTABLE_COMPILER "${ravok_compiler}" CACHE INTERNAL "The folder of the compiler's programs")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RAVOK_PORTABLE_COMPILER)

set(CMAKE_C_COMPILER "${RAVOK_PORTABLE_COMPILER}/cc")
set(CMAKE_CXX_COMPILER "${RAVOK_PORTABLE_COMPILER}/c++")
set(CMAKE_AR "${RAVOK_PORTABLE_COMPILER}/ar")
set(CMAKE_RANLIB "${RAVOK_PORTABLE_COMPILER}/ranlib")
list(APPEND CMAKE_PREFIX_PATH "${RAVOK_PORTABLE_COMPILER}")
set(CLI11_DIR "${RAVOK_PORTABLE_COMPILER}/CLI11")
