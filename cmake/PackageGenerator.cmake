# Read by cpack once for each kind of package. Only an archive has a folder of its own around everything.
if(CPACK_GENERATOR STREQUAL "TGZ")
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
endif()
