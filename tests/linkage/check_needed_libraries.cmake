# Fails when one of FILES lists a shared library matching FORBIDDEN as needed
# at load time (readelf -d), naming the file and the library.
#
#   cmake -DREADELF=<readelf> -DFILES=<a|b> -DFORBIDDEN=<regex> -DWHY=<text> -P check_needed_libraries.cmake

if(NOT READELF OR NOT FILES OR NOT FORBIDDEN)
  message(FATAL_ERROR "usage: cmake -DREADELF=<readelf> -DFILES=<files> -DFORBIDDEN=<regex> [-DWHY=<text>] -P check_needed_libraries.cmake")
endif()

string(REPLACE "|" ";" FILES "${FILES}")
set(found "")
foreach(file IN LISTS FILES)
  execute_process(COMMAND ${READELF} -d ${file} OUTPUT_VARIABLE dynamic RESULT_VARIABLE result ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${READELF} failed on ${file}: ${errors}")
  endif()
  string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]]*\\]" entries "${dynamic}")
  if(NOT entries)
    message(FATAL_ERROR "${file} lists no needed libraries: not a dynamically linked file?")
  endif()
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE ".*\\[(.*)\\]" "\\1" library "${entry}")
    if(library MATCHES "${FORBIDDEN}")
      list(APPEND found "${file} needs ${library}")
    endif()
  endforeach()
endforeach()

if(found)
  list(JOIN found "\n  " text)
  message(FATAL_ERROR "${WHY}:\n  ${text}")
endif()
message(STATUS "no needed library matches ${FORBIDDEN}")
