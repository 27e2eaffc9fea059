# Run by cpack when it has made a package: packs an archive again, since cpack writes into it by which user it was run, and
# lists the files in the order in which it came upon them. What comes out tells neither.

if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(time "@$ENV{SOURCE_DATE_EPOCH}")
else()
  set(time "now")
endif()

foreach(archive IN LISTS CPACK_PACKAGE_FILES)
  if(archive MATCHES "[.]tar[.]gz$")
    set(folder "${archive}.unpacked")
    file(REMOVE_RECURSE "${folder}")
    file(MAKE_DIRECTORY "${folder}")
    execute_process(COMMAND tar --extract --preserve-permissions --file "${archive}" --directory "${folder}"
      COMMAND_ERROR_IS_FATAL ANY)
    file(GLOB entries RELATIVE "${folder}" "${folder}/*")
    execute_process(
      COMMAND tar --create --format=ustar --owner=0 --group=0 --numeric-owner --sort=name --mtime=${time}
              --directory "${folder}" ${entries}
      COMMAND gzip -9n
      OUTPUT_FILE "${archive}"
      COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE "${folder}")
  endif()
endforeach()
