# Refuses an include of host code in the simulated board. The simulator stands in for the
# hardware: were it to borrow the host's code, a mistake in that code would be made on both sides
# of the wire and no test would see it. So its files may include only its own headers (sim/), the
# shared packet formats (wire/), the platform layer (platform/) and system headers.
#
#   cmake -DROOT=<source tree> -DDIR=<folder to check> [-DSTAMP=<file>] -P CheckIncludes.cmake
#
# Fails naming every offending file and include; writes STAMP only when there is none.

cmake_minimum_required(VERSION 3.25)

set(allowed sim wire platform)

# A folder of the source tree named in an angle include is host code as much as in a quoted one.
file(GLOB entries RELATIVE ${ROOT} LIST_DIRECTORIES true ${ROOT}/*)
set(project_folders)
foreach(entry IN LISTS entries)
  if(IS_DIRECTORY ${ROOT}/${entry})
    list(APPEND project_folders ${entry})
  endif()
endforeach()

file(GLOB files ${DIR}/*.h ${DIR}/*.cpp)
list(SORT files)
set(refused)
foreach(file IN LISTS files)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include")
  file(RELATIVE_PATH name ${ROOT} ${file})
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "include[ \t]*([<\"])([^>\"]*)[>\"]")
      continue()
    endif()
    set(quote ${CMAKE_MATCH_1})
    set(path ${CMAKE_MATCH_2})
    set(first "")
    if(path MATCHES "^([^/]+)/")
      set(first ${CMAKE_MATCH_1})
    endif()
    set(bad FALSE)
    if(path MATCHES "(^|/)\\.\\.(/|$)")
      set(bad TRUE)
    elseif(quote STREQUAL "\"" AND NOT first IN_LIST allowed)
      set(bad TRUE)
    elseif(first IN_LIST project_folders AND NOT first IN_LIST allowed)
      set(bad TRUE)
    endif()
    if(bad)
      if(quote STREQUAL "<")
        list(APPEND refused "  ${name} includes <${path}>")
      else()
        list(APPEND refused "  ${name} includes \"${path}\"")
      endif()
    endif()
  endforeach()
endforeach()

if(refused)
  list(JOIN refused "\n" text)
  message(FATAL_ERROR "The simulated board includes host code:\n${text}\n"
                      "It may include only sim/, wire/ and platform/ headers and system headers.")
endif()
if(STAMP)
  file(TOUCH ${STAMP})
endif()
