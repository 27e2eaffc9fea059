# Run by cpack when all files of a package lie in its temporary directory: adds the files that Debian asks for, presses
# the manual pages as it wants them, and gives every file the same time, so that the same build gives the same package.

if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(time "@$ENV{SOURCE_DATE_EPOCH}")
else()
  set(time "now")
endif()

function(ravok_run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The archive has no folder usr, and cpack already knows the names of all its files.
file(GLOB_RECURSE pages LIST_DIRECTORIES false "${CPACK_TEMPORARY_DIRECTORY}/*")
list(FILTER pages INCLUDE REGEX "/usr/share/man/man[1-9]/[^/]*[.][1-9]$")
foreach(page IN LISTS pages)
  ravok_run(gzip -9n "${page}")
endforeach()

file(GLOB_RECURSE documents LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/*")
list(FILTER documents INCLUDE REGEX "/usr/share/doc/${CPACK_PACKAGE_NAME}$")
foreach(folder IN LISTS documents)
  execute_process(COMMAND date --utc --rfc-email --date=${time} OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
  file(WRITE "${folder}/changelog" "${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * Version ${CPACK_PACKAGE_VERSION}.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  ravok_run(gzip -9n "${folder}/changelog")
  file(WRITE "${folder}/copyright" "Copyright: the owners of Ravok, who have stated no licence for it.

Libraries of others are linked into the programs, each under its own licence.
")
  file(GLOB notices "${folder}/*[Nn][Oo][Tt][Ii][Cc][Ee]*")
  foreach(notice IN LISTS notices)
    get_filename_component(name "${notice}" NAME)
    file(APPEND "${folder}/copyright" "Their texts stand in ${name} beside this file.\n")
  endforeach()
endforeach()

file(GLOB_RECURSE entries LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(entry IN LISTS entries)
  ravok_run(touch --no-dereference --date=${time} "${entry}")
  if(NOT IS_DIRECTORY "${entry}" AND NOT entry MATCHES "/bin/[^/]*$")
    file(CHMOD "${entry}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  endif()
endforeach()
