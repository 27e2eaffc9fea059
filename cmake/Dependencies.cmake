# The third-party libraries, either built by third_party/build or installed on this system.

include(DependencySource)
include(RequireVersion)

set(RAVOK_DEPENDENCIES bundled CACHE STRING "Where the third-party libraries come from: bundled or system")
set_property(CACHE RAVOK_DEPENDENCIES PROPERTY STRINGS bundled system)

ravok_require_dependency_source("${RAVOK_DEPENDENCIES}" "${RAVOK_OS}")
if(RAVOK_DEPENDENCIES STREQUAL "bundled")
  set(ravok_recipe "${PROJECT_SOURCE_DIR}/third_party/build")
  if(RAVOK_PORTABLE_COMPILER)
    list(APPEND ravok_recipe --portable)
  endif()
  if(NOT RAVOK_WINDOWS)
    list(APPEND ravok_recipe --without-windows)
  endif()
  execute_process(
    COMMAND ${ravok_recipe}
    OUTPUT_VARIABLE ravok_prefix
    OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE ravok_prefix_result)
  if(NOT ravok_prefix_result EQUAL 0)
    message(FATAL_ERROR "The third-party libraries could not be built; the reason stands above")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/third_party/build")
  # What an earlier configuration found may lie in the prefix of an older recipe.
  if(NOT "${ravok_prefix}" STREQUAL "${RAVOK_FOUND_PREFIX}")
    get_cmake_property(ravok_cached CACHE_VARIABLES)
    foreach(variable IN LISTS ravok_cached)
      if(variable MATCHES "^(OPENSSL_|_OPENSSL|CURL_|LibArchive_|zstd_|RAVOK_JSON_|RAVOK_ZSTD_|RAVOK_TOOLKIT_)")
        unset(${variable} CACHE)
      endif()
    endforeach()
    set(RAVOK_FOUND_PREFIX "${ravok_prefix}" CACHE INTERNAL "")
  endif()
  list(PREPEND CMAKE_PREFIX_PATH "${ravok_prefix}")
  set(OPENSSL_ROOT_DIR "${ravok_prefix}")
  set(OPENSSL_USE_STATIC_LIBS ON)
endif()

# Whoever links the client links these too, from wherever in the build.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ON)
find_package(Threads REQUIRED)

find_package(OpenSSL QUIET COMPONENTS Crypto SSL)
ravok_require_version(OpenSSL "${OPENSSL_VERSION}" 3.5 4)

find_package(CURL QUIET)
ravok_require_version(libcurl "${CURL_VERSION_STRING}" 8.0 "")

find_package(LibArchive QUIET)
ravok_require_version(libarchive "${LibArchive_VERSION}" 3.6 "")

# ravok_header_version(RESULT HEADER PREFIX PART...): the version that a header defines in PARTs, for those that are read
# from their headers, since not every system installs their package files.
function(ravok_header_version result header prefix)
  set(found "")
  if(header)
    foreach(part IN LISTS ARGN)
      file(STRINGS "${header}" line REGEX "^#define +${prefix}_${part} +[0-9]+")
      string(REGEX MATCH "[0-9]+" number "${line}")
      list(APPEND found "${number}")
    endforeach()
    list(JOIN found "." found)
  endif()
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

find_path(RAVOK_JSON_INCLUDE nlohmann/json.hpp)
set(ravok_json_header "")
if(RAVOK_JSON_INCLUDE)
  foreach(candidate nlohmann/detail/abi_macros.hpp nlohmann/json.hpp)
    if(NOT ravok_json_header AND EXISTS "${RAVOK_JSON_INCLUDE}/${candidate}")
      set(ravok_json_header "${RAVOK_JSON_INCLUDE}/${candidate}")
    endif()
  endforeach()
endif()
ravok_header_version(ravok_json_version "${ravok_json_header}" NLOHMANN_JSON_VERSION MAJOR MINOR PATCH)
ravok_require_version("nlohmann json" "${ravok_json_version}" 3.11.3 4)

find_path(RAVOK_ZSTD_INCLUDE zstd.h)
find_library(RAVOK_ZSTD_LIBRARY zstd)
set(ravok_zstd_header "")
if(RAVOK_ZSTD_INCLUDE AND RAVOK_ZSTD_LIBRARY)
  set(ravok_zstd_header "${RAVOK_ZSTD_INCLUDE}/zstd.h")
endif()
ravok_header_version(ravok_zstd_version "${ravok_zstd_header}" ZSTD_VERSION MAJOR MINOR RELEASE)
ravok_require_version(zstd "${ravok_zstd_version}" 1.5 2)

# The libraries as the client links them. They are imported targets, which an installed package does not contain but
# finds or defines again: see ravokConfig.cmake.in.
foreach(name json zstd crypto archive curl)
  add_library(ravok_${name} INTERFACE IMPORTED GLOBAL)
endforeach()
target_include_directories(ravok_json INTERFACE "${RAVOK_JSON_INCLUDE}")
# A value becomes another type only where the code says so.
target_compile_definitions(ravok_json INTERFACE JSON_USE_IMPLICIT_CONVERSIONS=0)
target_include_directories(ravok_zstd INTERFACE "${RAVOK_ZSTD_INCLUDE}")
target_link_libraries(ravok_zstd INTERFACE "${RAVOK_ZSTD_LIBRARY}")
target_link_libraries(ravok_crypto INTERFACE OpenSSL::Crypto)
target_link_libraries(ravok_archive INTERFACE LibArchive::LibArchive)
target_link_libraries(ravok_curl INTERFACE CURL::libcurl)

# What every Linux system packages as a static library.
if(RAVOK_OS STREQUAL "linux")
  find_library(RAVOK_UTF8PROC_LIBRARY NAMES libutf8proc.a REQUIRED)
  add_library(ravok_utf8proc INTERFACE IMPORTED GLOBAL)
  target_link_libraries(ravok_utf8proc INTERFACE "${RAVOK_UTF8PROC_LIBRARY}")
endif()

include(Toolkit)

message(STATUS "Libraries (${RAVOK_DEPENDENCIES}): OpenSSL ${OPENSSL_VERSION}, libcurl ${CURL_VERSION_STRING}, "
               "libarchive ${LibArchive_VERSION}, zstd ${ravok_zstd_version}, nlohmann json ${ravok_json_version}")
