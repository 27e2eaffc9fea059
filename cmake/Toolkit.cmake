# The toolkit of the programs with a window: ravok_toolkit, which they alone link.

if(RAVOK_WINDOWS)
  set(ravok_without_windows "-DRAVOK_WINDOWS=OFF leaves the programs with a window out")
  if(NOT RAVOK_OS STREQUAL "linux")
    message(FATAL_ERROR "The programs with a window are written for X11; ${ravok_without_windows}")
  endif()

  find_path(RAVOK_TOOLKIT_INCLUDE FL/Enumerations.H)
  set(ravok_fltk_header "")
  if(RAVOK_TOOLKIT_INCLUDE)
    set(ravok_fltk_header "${RAVOK_TOOLKIT_INCLUDE}/FL/Enumerations.H")
  endif()
  ravok_header_version(ravok_fltk_version "${ravok_fltk_header}" FL MAJOR_VERSION MINOR_VERSION PATCH_VERSION)
  ravok_require_version(FLTK "${ravok_fltk_version}" 1.4 2 "${ravok_without_windows}")

  add_library(ravok_toolkit INTERFACE IMPORTED GLOBAL)
  target_include_directories(ravok_toolkit INTERFACE "${RAVOK_TOOLKIT_INCLUDE}")
  # Each before those that it calls.
  if(RAVOK_DEPENDENCIES STREQUAL "bundled")
    set(ravok_toolkit_libraries fltk_images fltk png z Xft fontconfig expat freetype Xinerama Xext Xrender X11 xcb Xau)
    list(TRANSFORM ravok_toolkit_libraries REPLACE "(.+)" "lib\\1.a")
  else()
    # A system's FLTK is shared and brings what it needs by itself; programs call the other two of these as well. Its
    # headers may include those of Cairo, and it is asked for X11 where it could also take Wayland.
    set(ravok_toolkit_libraries fltk_images fltk fontconfig X11)
    file(STRINGS "${RAVOK_TOOLKIT_INCLUDE}/FL/fl_config.h" ravok_fltk_draws_by_cairo REGEX "^#define +FLTK_HAVE_CAIRO ")
    if(ravok_fltk_draws_by_cairo)
      find_path(RAVOK_TOOLKIT_CAIRO_INCLUDE cairo.h PATH_SUFFIXES cairo)
      if(NOT RAVOK_TOOLKIT_CAIRO_INCLUDE)
        message(FATAL_ERROR "The headers of Cairo, which those of FLTK include, are not installed; "
                            "${ravok_without_windows}")
      endif()
      target_include_directories(ravok_toolkit INTERFACE "${RAVOK_TOOLKIT_CAIRO_INCLUDE}")
    endif()
    add_library(ravok_toolkit_on_x11 STATIC "${CMAKE_CURRENT_LIST_DIR}/toolkit_on_x11.cpp")
    ravok_compile_as_set(ravok_toolkit_on_x11)
    target_link_libraries(ravok_toolkit INTERFACE ravok_toolkit_on_x11)
    target_link_options(ravok_toolkit INTERFACE
      -Wl,--undefined=fl_disable_wayland -Wl,--export-dynamic-symbol=fl_disable_wayland)
  endif()
  foreach(library IN LISTS ravok_toolkit_libraries)
    find_library(RAVOK_TOOLKIT_${library} NAMES ${library})
    if(NOT RAVOK_TOOLKIT_${library})
      message(FATAL_ERROR "The library ${library} of FLTK ${ravok_fltk_version} is not installed; "
                          "${ravok_without_windows}")
    endif()
    target_link_libraries(ravok_toolkit INTERFACE "${RAVOK_TOOLKIT_${library}}")
  endforeach()
  target_link_libraries(ravok_toolkit INTERFACE Threads::Threads)
  message(STATUS "Toolkit (${RAVOK_DEPENDENCIES}): FLTK ${ravok_fltk_version}")
endif()
