# Copies the public headers to STAGED with includes that start at VelkorSync/; writes only what differs, so that a new stage
# rebuilds only what it must.
function(write_if_different path text)
  if(EXISTS ${path})
    file(READ ${path} old)
    if(old STREQUAL text)
      return()
    endif()
  endif()
  file(WRITE ${path} "${text}")
endfunction()

set(umbrella "#pragma once\n\n")
set(staged VelkorSync.h)
foreach(header ${HEADERS})
  file(READ ${SOURCE}/${header} text)
  # A host has the headers of no other library.
  if(text MATCHES "#include <((curl|openssl|plist|unicode)/|uv\\.h|sqlite3\\.h|zlib\\.h)")
    message(FATAL_ERROR "${header} includes ${CMAKE_MATCH_1} of another library: list it in internal-headers.txt")
  endif()
  string(REGEX REPLACE "#include \"(platform|json|objectstore|PelmoLib|Sync)/" "#include \"VelkorSync/\\1/" text "${text}")
  write_if_different(${STAGED}/${header} "${text}")
  get_filename_component(name ${header} NAME)
  write_if_different(${STAGED}/${name} "#pragma once\n#include \"VelkorSync/${header}\"\n")
  string(APPEND umbrella "#include \"VelkorSync/${header}\"\n")
  list(APPEND staged ${header} ${name})
endforeach()

# What an earlier stage held and is public no more would be installed, too.
file(GLOB_RECURSE former RELATIVE ${STAGED} ${STAGED}/*.h)
list(REMOVE_ITEM former ${staged})
if(former)
  list(TRANSFORM former PREPEND ${STAGED}/)
  file(REMOVE ${former})
endif()

write_if_different(${STAGED}/VelkorSync.h "${umbrella}")
file(TOUCH_NOCREATE ${STAGED}/VelkorSync.h)
