# What `cmake --install` puts below its prefix, which may then be moved anywhere. Component programs: the programs.
# Component development: the static libraries, their headers, and the package that find_package(ravok) reads.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ravok_include "${CMAKE_INSTALL_INCLUDEDIR}/ravok")
set(ravok_archives "${CMAKE_INSTALL_LIBDIR}/ravok")
set(ravok_package "${CMAKE_INSTALL_LIBDIR}/cmake/ravok")

install(TARGETS ${ravok_programs}
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT programs)
# Where ravok-publish looks for it, too.
install(FILES "${ravok_notices}" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/ravok" COMPONENT programs)
if(ravok_manual_files)
  install(FILES ${ravok_man_pages} DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT programs)
  install(FILES ${ravok_bash_completions} DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
    COMPONENT programs)
  install(FILES ${ravok_zsh_completions} DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" COMPONENT programs)
  install(FILES ${ravok_fish_completions} DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d"
    COMPONENT programs)
endif()

set(ravok_libraries "")
foreach(library domain platform transport tuf app core commit publisher)
  list(APPEND ravok_libraries ravok_${library})
  set_target_properties(ravok_${library} PROPERTIES EXPORT_NAME ${library})
endforeach()
install(TARGETS ${ravok_libraries} EXPORT ravok
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  INCLUDES DESTINATION "${ravok_include}")
install(EXPORT ravok NAMESPACE ravok:: FILE ravokTargets.cmake DESTINATION "${ravok_package}" COMPONENT development)

# The folders of one system and the commands have no header that another includes.
foreach(folder client/domain client/platform client/transport client/tuf client/app publisher)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/${folder}" DESTINATION "${ravok_include}" COMPONENT development
    FILES_MATCHING PATTERN "*.hpp" PATTERN posix EXCLUDE PATTERN linux EXCLUDE PATTERN macos EXCLUDE
    PATTERN commands EXCLUDE PATTERN manual EXCLUDE)
endforeach()

# The cache of the bundled libraries is not there on another machine, so an installation has them itself.
if(RAVOK_DEPENDENCIES STREQUAL "bundled")
  foreach(library archive crypto curl ssl zstd)
    install(FILES "${ravok_prefix}/lib/lib${library}.a" DESTINATION "${ravok_archives}" COMPONENT development)
  endforeach()
  install(FILES "${RAVOK_UTF8PROC_LIBRARY}" DESTINATION "${ravok_archives}" COMPONENT development)
  install(DIRECTORY "${RAVOK_JSON_INCLUDE}/nlohmann" DESTINATION "${ravok_include}/third_party" COMPONENT development)
endif()

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/ravokConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/package/ravokConfig.cmake"
  INSTALL_DESTINATION "${ravok_package}" PATH_VARS ravok_include ravok_archives)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/ravokConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/ravokConfig.cmake" "${PROJECT_BINARY_DIR}/package/ravokConfigVersion.cmake"
  DESTINATION "${ravok_package}" COMPONENT development)
