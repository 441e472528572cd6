# Refuses an include that reaches up or across the tool's tiers. Each folder of the tool sits on
# the folders below it (TavroTiers.cmake lists them): code in util/ is used by the window, the
# link and the pages, and were it to include the window in turn, the tiers would stop being
# tiers and every change low down would rebuild and retest everything above it.
#
#   cmake -DROOT=<source tree> -DDIR=<folder to check> -DFOLDER=<its tier's name>
#         "-DBELOW=<folders it may include, ;-separated>" [-DSTAMP=<file>] -P CheckTiers.cmake
#
# A file may include its own folder's headers, those of the folders below it and system headers.
# Fails naming every offending file and include; writes STAMP only when there is none.

cmake_minimum_required(VERSION 3.25)

set(allowed ${FOLDER} ${BELOW})

# A folder of the source tree named in an angle include is ours as much as in a quoted one.
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
  list(JOIN BELOW ", " below)
  if(below STREQUAL "")
    set(below "no other folder")
  endif()
  message(FATAL_ERROR "${FOLDER}/ includes what is not below it:\n${text}\n"
                      "${FOLDER}/ may include its own headers, ${below} and system headers.")
endif()
if(STAMP)
  file(TOUCH ${STAMP})
endif()
