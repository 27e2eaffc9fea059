# The language, the warnings, the hardening and the instrumentation of every target.

option(RAVOK_WARNINGS_AS_ERRORS "Refuse code that the compiler warns about" OFF)
option(RAVOK_FUZZERS "Build the fuzzers with libFuzzer (needs clang)" OFF)
option(RAVOK_COVERAGE "Count executed lines" OFF)
set(RAVOK_SANITIZE "" CACHE STRING "Sanitizers, as in -fsanitize=")

if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(RAVOK_OS linux)
elseif(CMAKE_SYSTEM_NAME STREQUAL "Darwin" AND CMAKE_SYSTEM_PROCESSOR STREQUAL "arm64")
  set(RAVOK_OS macos)
else()
  message(FATAL_ERROR "Ravok builds for Linux x86-64 and macOS aarch64, "
                      "not for ${CMAKE_SYSTEM_NAME} ${CMAKE_SYSTEM_PROCESSOR}")
endif()

if(RAVOK_FUZZERS AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "RAVOK_FUZZERS needs clang; use the preset fuzz")
endif()

# Fuzzers are of parsers, which have no window, and another project that holds this one wants the client.
set(ravok_windows_default OFF)
if(RAVOK_OS STREQUAL "linux" AND PROJECT_IS_TOP_LEVEL AND NOT RAVOK_FUZZERS)
  set(ravok_windows_default ON)
endif()
option(RAVOK_WINDOWS "Build the programs with a window" ${ravok_windows_default})

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

add_library(ravok_options INTERFACE)
target_compile_options(ravok_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual
  -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef -Wimplicit-fallthrough)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # Warns of overlapping copies inside the library's own operator+ for texts.
  target_compile_options(ravok_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Sources that are compiled as one are included by it, so that their own types seem to be those of a header.
  target_compile_options(ravok_options INTERFACE $<$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>:-Wno-subobject-linkage>)
endif()
if(RAVOK_WARNINGS_AS_ERRORS)
  target_compile_options(ravok_options INTERFACE -Werror)
endif()

target_compile_options(ravok_options INTERFACE -fstack-protector-strong)
if(RAVOK_OS STREQUAL "linux")
  # A program holds only what it uses of the libraries.
  target_compile_options(ravok_options INTERFACE -ffunction-sections -fdata-sections)
  target_link_options(ravok_options INTERFACE -Wl,--gc-sections)
  target_compile_options(ravok_options INTERFACE -fstack-clash-protection -fcf-protection)
  target_link_options(ravok_options INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  target_compile_options(ravok_options INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  # What is shipped does not tell where it was built, and is the same wherever it is built.
  target_compile_options(ravok_options INTERFACE
    "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=." "-ffile-prefix-map=${PROJECT_BINARY_DIR}=build")
endif()
if(RAVOK_PORTABLE_COMPILER)
  # The information for debuggers goes into files of their own.
  target_compile_options(ravok_options INTERFACE -g)
  target_link_options(ravok_options INTERFACE -Wl,--build-id=sha1)
  list(APPEND CMAKE_CXX_LINK_EXECUTABLE
    "\"${PROJECT_SOURCE_DIR}/cmake/separate-debug\" <TARGET> \"${PROJECT_BINARY_DIR}/debug\"")
  set_property(TARGET ravok_options APPEND PROPERTY
    INTERFACE_LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/separate-debug")
endif()

if(RAVOK_SANITIZE)
  target_compile_options(ravok_options INTERFACE
    -fsanitize=${RAVOK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    $<$<BOOL:$<TARGET_PROPERTY:RAVOK_TEST_CODE>>:-fno-sanitize=undefined>)
  target_link_options(ravok_options INTERFACE -fsanitize=${RAVOK_SANITIZE})
endif()
if(RAVOK_FUZZERS)
  target_compile_options(ravok_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(RAVOK_COVERAGE)
  # Each program writes its counts as it goes, so that those of a program that is killed are there too, into a file of its
  # own below this folder, whatever its environment says, and counts nothing twice or not at all where several of it run
  # at once. Tests count as well, since a program has one copy of what stands in a header, which may be that of a test.
  target_compile_options(ravok_options INTERFACE -O0
    "-fprofile-instr-generate=${PROJECT_BINARY_DIR}/counts/%m%c.profraw" -fcoverage-mapping -fprofile-update=atomic
    "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(ravok_options INTERFACE -fprofile-instr-generate)
endif()

# ravok_compile_as_set(NAME): compiles a library with these options and hands none of them on, so that the program of
# another project that links it has its own.
function(ravok_compile_as_set name)
  target_compile_options(${name} PRIVATE $<TARGET_PROPERTY:ravok_options,INTERFACE_COMPILE_OPTIONS>)
endfunction()
