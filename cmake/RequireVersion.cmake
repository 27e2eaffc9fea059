# Refuses a library that is missing, too old or too new, in words that name both versions.
#
#   ravok_require_version(NAME FOUND MINIMUM BELOW [ELSE])
#
# FOUND is empty when the library is not there. BELOW is the first version that is too new, or
# empty when every later version will do. ELSE says what else the reader can do, where there is something.
function(ravok_require_version name found minimum below)
  set(needed "${minimum} or later")
  if(below)
    string(APPEND needed ", below ${below},")
  endif()
  set(otherwise "")
  if(ARGC GREATER 4)
    set(otherwise "; ${ARGV4}")
  endif()
  if(NOT found)
    message(FATAL_ERROR "${name} is not installed; ${needed} is needed${otherwise}")
  elseif(found VERSION_LESS minimum)
    message(FATAL_ERROR "${name} ${found} is installed and too old; ${needed} is needed${otherwise}")
  elseif(below AND found VERSION_GREATER_EQUAL below)
    message(FATAL_ERROR "${name} ${found} is installed and too new; ${needed} is needed${otherwise}")
  endif()
endfunction()
