# Refuses a value of RAVOK_DEPENDENCIES that is none, or that the operating system does not offer, in words that
# name the one that can.
#
#   ravok_require_dependency_source(SOURCE OS)
function(ravok_require_dependency_source source os)
  if(NOT source MATCHES "^(bundled|system)$")
    message(FATAL_ERROR "RAVOK_DEPENDENCIES is bundled or system, not ${source}")
  elseif(source STREQUAL "bundled" AND NOT os STREQUAL "linux")
    message(FATAL_ERROR "The bundled libraries are built from Debian's source packages, which takes Debian's apt; "
                        "install the libraries of README.md and configure with -DRAVOK_DEPENDENCIES=system")
  endif()
endfunction()
