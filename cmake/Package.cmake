# What cpack makes of a build for those who ship a product: a package for Debian, and an archive that runs from wherever
# it is unpacked. Both hold all that `cmake --install` knows but the libraries for developers. scripts/package makes and
# signs them. This comes after all install rules, so that it takes those of every other file too.

include(GNUInstallDirs)

set(RAVOK_PACKAGE_CONTACT "Ravok <unknown@localhost>" CACHE STRING "Who answers for the packages: NAME <ADDRESS>")

file(GLOB ravok_documents CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/docs/*.md")
foreach(document README SECURITY)
  if(EXISTS "${PROJECT_SOURCE_DIR}/${document}.md")
    list(APPEND ravok_documents "${PROJECT_SOURCE_DIR}/${document}.md")
  endif()
endforeach()
install(FILES ${ravok_documents} DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT documentation)

get_cmake_property(ravok_components COMPONENTS)
list(REMOVE_ITEM ravok_components development Unspecified)

set(CPACK_GENERATOR "DEB;TGZ")
set(CPACK_PACKAGE_NAME "ravok")
set(CPACK_PACKAGE_VENDOR "Ravok")
set(CPACK_PACKAGE_CONTACT "${RAVOK_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "installers and signed updates for desktop games")
set(CPACK_PACKAGE_DESCRIPTION "Makes what installs and updates a client for desktop games: packed and
verified snapshots, sealed initial packages, installers in a folder or in one
file, and the signed repository that installed clients update from.
.
Holds ravok-publish, and the programs that it gives to players.")
set(CPACK_PACKAGE_FILE_NAME "ravok-${PROJECT_VERSION}-${RAVOK_OS}-${CMAKE_SYSTEM_PROCESSOR}")
set(CPACK_OUTPUT_FILE_PREFIX "${CMAKE_BINARY_DIR}/packages")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL ${ravok_components})
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_PROJECT_CONFIG_FILE "${CMAKE_CURRENT_LIST_DIR}/PackageGenerator.cmake")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/PackageStaging.cmake")
set(CPACK_POST_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/PackageArchive.cmake")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "devel")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE "xz")

include(CPack)
