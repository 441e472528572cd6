# The tool's tiers, lowest first: each folder with the folders below it, the only ones it may
# include (besides its own and system headers). The simulator keeps its own rule
# (sim/CheckIncludes.cmake); tests, benchmarks and fuzz targets may include anything.
set(TAVRO_TIERS
  "platform:"
  "wire:"
  "util:platform"
  "config:util,platform"
  "ui:config,util,platform"
  "recorder:util,platform"
  "reports:util,platform"
  "link:wire,ui,config,util,platform"
  "motion:reports,link,wire,ui,config,util,platform"
  "pages:motion,reports,recorder,link,wire,ui,config,util,platform"
  "app:pages,motion,reports,recorder,link,wire,ui,config,util,platform"
)

# One check per folder: it runs before anything of the folder is compiled, again whenever a
# file there changes, and fails the build naming the file and the include.
function(tavro_check_tiers)
  foreach(tier IN LISTS TAVRO_TIERS)
    string(REPLACE ":" ";" parts "${tier}")
    list(GET parts 0 folder)
    set(below "")
    list(LENGTH parts n)
    if(n GREATER 1)
      list(GET parts 1 below)
      string(REPLACE "," ";" below "${below}")
    endif()
    set(dir ${PROJECT_SOURCE_DIR}/${folder})
    file(GLOB files CONFIGURE_DEPENDS ${dir}/*.h ${dir}/*.cpp)
    set(stamp ${PROJECT_BINARY_DIR}/tiers/${folder}.stamp)
    add_custom_command(
      OUTPUT ${stamp}
      COMMAND ${CMAKE_COMMAND} -DROOT=${PROJECT_SOURCE_DIR} -DDIR=${dir} -DFOLDER=${folder}
              "-DBELOW=${below}" -DSTAMP=${stamp}
              -P ${PROJECT_SOURCE_DIR}/cmake/CheckTiers.cmake
      DEPENDS ${files} ${PROJECT_SOURCE_DIR}/cmake/CheckTiers.cmake
              ${PROJECT_SOURCE_DIR}/cmake/TavroTiers.cmake
      COMMENT "Checking that ${folder}/ includes only what is below it"
      VERBATIM)
    add_custom_target(tavro_${folder}_tier ALL DEPENDS ${stamp})
    # Every target the folder defines waits for its check.
    get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
      get_target_property(type ${target} TYPE)
      if(NOT type STREQUAL "INTERFACE_LIBRARY" AND NOT type STREQUAL "UTILITY")
        add_dependencies(${target} tavro_${folder}_tier)
      endif()
    endforeach()
  endforeach()
endfunction()
