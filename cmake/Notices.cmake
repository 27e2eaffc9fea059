# third-party-notices.txt: the libraries that the programs are made with, and the licence of each as the Debian package
# states it that the library comes from. It lies beside the programs, goes into an installer's folder, and is installed
# with them.

set(ravok_notices_name "third-party-notices.txt")
set(ravok_notices "${PROJECT_BINARY_DIR}/${ravok_notices_name}")
if(PROJECT_IS_TOP_LEVEL)
  set(ravok_notices "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${ravok_notices_name}")
endif()
set(ravok_notices_list "")
set(ravok_notices_texts "")
string(REPEAT "=" 80 ravok_notices_rule)
set(ravok_no_notice "The text of this licence was not found on the system where these programs were built.\n")

# ravok_notice(NAME LICENCE SOURCE PACKAGE...): a library, the licence that the programs use it under, the source package
# that third_party/build makes it of, or "-", and the packages that a system has it from.
function(ravok_notice name licence source)
  set(places "")
  set(text "")
  if(RAVOK_DEPENDENCIES STREQUAL "bundled" AND NOT source STREQUAL "-")
    list(APPEND places "${ravok_prefix}/licences/${source}")
  endif()
  foreach(package IN LISTS ARGN)
    list(APPEND places "/usr/share/doc/${package}/copyright")
  endforeach()
  foreach(place IN LISTS places)
    if(EXISTS "${place}")
      file(READ "${place}" text)
      set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${place}")
      break()
    endif()
  endforeach()
  if(NOT text)
    set(text "${ravok_no_notice}")
    message(WARNING "The licence of ${name} is not found; ${ravok_notices_name} lacks it")
  endif()
  set(ravok_notices_list "${ravok_notices_list}  ${name}: ${licence}\n" PARENT_SCOPE)
  set(ravok_notices_texts "${ravok_notices_texts}\n${ravok_notices_rule}\n${name}\n${ravok_notices_rule}\n\n${text}"
      PARENT_SCOPE)
endfunction()

ravok_notice("OpenSSL ${OPENSSL_VERSION}" "Apache License 2.0" openssl libssl-dev)
ravok_notice("libcurl ${CURL_VERSION_STRING}" "the curl licence" curl libcurl4-openssl-dev libcurl4-gnutls-dev)
ravok_notice("libarchive ${LibArchive_VERSION}" "BSD, 2 clauses" libarchive libarchive-dev)
ravok_notice("Zstandard ${ravok_zstd_version}" "BSD, 3 clauses" libzstd libzstd-dev)
ravok_notice("JSON for Modern C++ ${ravok_json_version}" "Expat (MIT)" nlohmann-json3 nlohmann-json3-dev)
if(RAVOK_OS STREQUAL "linux")
  ravok_notice("utf8proc" "Expat (MIT) and Unicode" - libutf8proc-dev)
endif()
ravok_notice("CLI11, in ravok-publish alone" "BSD, 3 clauses" - libcli11-dev)
set(ravok_notices_of_toolkit "")
if(RAVOK_WINDOWS)
  set(ravok_windows_alone "in the programs with a window alone")
  ravok_notice("FLTK ${ravok_fltk_version}, ${ravok_windows_alone}"
    "GNU Library General Public License 2 with FLTK's exceptions" fltk1.4 libfltk1.4-dev)
  ravok_notice("libX11, ${ravok_windows_alone}" "MIT" libx11 libx11-dev)
  ravok_notice("fontconfig, ${ravok_windows_alone}" "MIT" fontconfig libfontconfig-dev)
  # A system's FLTK brings these by itself.
  if(RAVOK_DEPENDENCIES STREQUAL "bundled")
    ravok_notice("Expat, ${ravok_windows_alone}" "Expat (MIT)" expat)
    ravok_notice("FreeType, ${ravok_windows_alone}" "the FreeType licence" freetype)
    ravok_notice("libpng, ${ravok_windows_alone}" "the libpng licence" libpng1.6)
    ravok_notice("libXau, ${ravok_windows_alone}" "MIT" libxau)
    ravok_notice("libxcb, ${ravok_windows_alone}" "MIT" libxcb)
    ravok_notice("libXext, ${ravok_windows_alone}" "MIT" libxext)
    ravok_notice("libXft, ${ravok_windows_alone}" "MIT" xft)
    ravok_notice("libXinerama, ${ravok_windows_alone}" "MIT" libxinerama)
    ravok_notice("libXrender, ${ravok_windows_alone}" "MIT" libxrender)
    ravok_notice("the X protocol's headers, ${ravok_windows_alone}" "MIT" - x11proto-dev)
    ravok_notice("xtrans, ${ravok_windows_alone}" "MIT" - xtrans-dev)
    ravok_notice("zlib, ${ravok_windows_alone}" "the zlib licence" zlib)
  endif()
  set(ravok_notices_of_toolkit [[
The programs with a window are based in part on the work of the FLTK project (https://www.fltk.org) and of the FreeType
Project (https://www.freetype.org).

]])
endif()

# The packages only refer to it.
set(ravok_apache "/usr/share/common-licenses/Apache-2.0")
if(EXISTS "${ravok_apache}")
  file(READ "${ravok_apache}" ravok_apache_text)
else()
  set(ravok_apache_text "${ravok_no_notice}")
  message(WARNING "The Apache License 2.0 is not found; ${ravok_notices_name} lacks it")
endif()
string(APPEND ravok_notices_texts
  "\n${ravok_notices_rule}\nApache License 2.0\n${ravok_notices_rule}\n\n${ravok_apache_text}")

file(CONFIGURE OUTPUT "${ravok_notices}" @ONLY CONTENT [[Third-party notices

The programs of Ravok are made with these libraries, which are linked into them. Each is used under the licence that
stands behind it.

@ravok_notices_list@
@ravok_notices_of_toolkit@Below stands what the Debian package of each library states of its licences. It covers the whole package, so that it also
names licences of files, such as tests and scripts of the build, of which nothing is in these programs.
@ravok_notices_texts@]])
