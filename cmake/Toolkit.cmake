# The toolkit of the programs with a window: ravok_toolkit, which they alone link.

# Fuzzers are of parsers, which have no window.
set(ravok_windows_default OFF)
if(RAVOK_OS STREQUAL "linux" AND NOT RAVOK_FUZZERS)
  set(ravok_windows_default ON)
endif()
option(RAVOK_WINDOWS "Build the programs with a window" ${ravok_windows_default})

if(RAVOK_WINDOWS)
  set(ravok_without_windows "-DRAVOK_WINDOWS=OFF leaves the programs with a window out")
  if(NOT RAVOK_OS STREQUAL "linux")
    message(FATAL_ERROR "The programs with a window are written for X11; ${ravok_without_windows}")
  endif()

  find_path(RAVOK_FLTK_INCLUDE FL/Enumerations.H)
  find_library(RAVOK_FLTK_LIBRARY fltk)
  set(ravok_fltk_header "")
  if(RAVOK_FLTK_INCLUDE AND RAVOK_FLTK_LIBRARY)
    set(ravok_fltk_header "${RAVOK_FLTK_INCLUDE}/FL/Enumerations.H")
  endif()
  ravok_header_version(ravok_fltk_version "${ravok_fltk_header}" FL MAJOR_VERSION MINOR_VERSION PATCH_VERSION)
  ravok_require_version(FLTK "${ravok_fltk_version}" 1.4 2 "${ravok_without_windows}")

  add_library(ravok_toolkit INTERFACE IMPORTED GLOBAL)
  target_include_directories(ravok_toolkit SYSTEM INTERFACE "${RAVOK_FLTK_INCLUDE}")
  target_link_libraries(ravok_toolkit INTERFACE "${RAVOK_FLTK_LIBRARY}")
  # A shared FLTK brings what it needs by itself.
  if(RAVOK_FLTK_LIBRARY MATCHES "\\.a$")
    # Each before those that it calls.
    foreach(library Xft fontconfig expat freetype Xinerama Xext Xrender X11 xcb Xau)
      find_library(RAVOK_TOOLKIT_${library} NAMES lib${library}.a)
      if(NOT RAVOK_TOOLKIT_${library})
        message(FATAL_ERROR "lib${library}.a, which FLTK needs, is not installed; ${ravok_without_windows}")
      endif()
      target_link_libraries(ravok_toolkit INTERFACE "${RAVOK_TOOLKIT_${library}}")
    endforeach()
    target_link_libraries(ravok_toolkit INTERFACE Threads::Threads m)
  endif()
  message(STATUS "Toolkit of the programs with a window: FLTK ${ravok_fltk_version}")
endif()
