# The tools: tools/NAME/tool.cmake declares the program of the folder, every .cpp beside it is part of it, main.cpp is
# its entry. All but main.cpp is the library tessel_NAME_lib, which tests and fuzz targets link.
#
# tools_declared: every folder with a tool.cmake. tools_here: those whose packages are installed.

# tessel_tool(PROGRAM [PACKAGES keys of cmake/packages.cmake] [LIBRARIES tessel_receiver ...] [TOOLS other folders]
# [PROGRAM_LIBRARIES ...] [SOURCES ...]): for tools/*/tool.cmake. TOOLS are the tools whose libraries this one uses;
# PROGRAM_LIBRARIES is for the program alone, not for its tests; SOURCES are files that the build makes. The folder's
# name is in `tool`.
macro(tessel_tool program)
  cmake_parse_arguments(${tool} "" "" "PACKAGES;LIBRARIES;PROGRAM_LIBRARIES;TOOLS;SOURCES" ${ARGN})
  set(${tool}_PROGRAM ${program})
endmacro()

# tessel_tool_library([PACKAGES ...] [LIBRARIES ...] [TOOLS ...]): the same for a folder that tools share, which has no
# program.
macro(tessel_tool_library)
  cmake_parse_arguments(${tool} "" "" "PACKAGES;LIBRARIES;TOOLS" ${ARGN})
  set(${tool}_PROGRAM "")
endmacro()

file(GLOB declarations CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/*/tool.cmake)
set(tools_declared "")
foreach(declaration ${declarations})
  get_filename_component(folder ${declaration} DIRECTORY)
  get_filename_component(tool ${folder} NAME)
  list(APPEND tools_declared ${tool})
  include(${declaration})
endforeach()

foreach(tool ${tools_declared})
  set(packages ${${tool}_PACKAGES})
  foreach(other ${${tool}_TOOLS})
    list(APPEND packages ${${other}_PACKAGES})
  endforeach()
  set(missing "")
  foreach(package ${packages})
    if(NOT package_${package})
      list(APPEND missing ${debian_${package}})
    endif()
  endforeach()
  if(missing)
    list(REMOVE_DUPLICATES missing)
    list(JOIN missing ", " missing)
    set(left_out ${${tool}_PROGRAM})
    if(NOT left_out)
      set(left_out "what tools/${tool} is for")
    endif()
    tessel_missing("${left_out} is" "${missing}")
  else()
    list(APPEND tools_here ${tool})
  endif()
endforeach()

foreach(tool ${tools_here})
  set(folder ${PROJECT_SOURCE_DIR}/tools/${tool})
  file(GLOB files CONFIGURE_DEPENDS ${folder}/*.cpp)
  list(REMOVE_ITEM files ${folder}/main.cpp)
  set(libraries ${${tool}_LIBRARIES})
  foreach(package ${${tool}_PACKAGES})
    list(APPEND libraries ${package_${package}})
  endforeach()
  foreach(other ${${tool}_TOOLS})
    list(APPEND libraries tessel_${other}_lib)
  endforeach()
  add_library(tessel_${tool}_lib STATIC ${files} ${${tool}_SOURCES})
  target_include_directories(tessel_${tool}_lib PUBLIC ${PROJECT_SOURCE_DIR}/tools)
  target_link_libraries(tessel_${tool}_lib PUBLIC ${libraries} tessel_version PRIVATE tessel_hardening)
  tessel_precompile(tessel_${tool}_lib <algorithm> <array> <cstdint> <cstdio> <cstring> <fstream> <functional>
                    <map> <optional> <string> <string_view> <vector>)
  if(TESSEL_SANITIZE)
    # What formats text takes long to compile with sanitizers and optimization, and is not waited for.
    target_compile_options(tessel_${tool}_lib PRIVATE -O0)
  endif()
  if(${tool}_PROGRAM)
    add_executable(${${tool}_PROGRAM} ${folder}/main.cpp)
    target_link_libraries(${${tool}_PROGRAM} PRIVATE
      tessel_${tool}_lib ${${tool}_PROGRAM_LIBRARIES} tessel_hardening)
    install(TARGETS ${${tool}_PROGRAM} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
  # Reading a command line need not be fast, and the option parser takes long to optimize. The checked calls of the
  # library need level 1 at least.
  set(level "")
  if(TESSEL_SANITIZE)
    set(level -O0)
  elseif(own_level)
    set(level -O1)
  endif()
  foreach(file options.cpp main.cpp)
    if(level AND EXISTS ${folder}/${file})
      set_source_files_properties(${folder}/${file} PROPERTIES COMPILE_OPTIONS ${level} SKIP_PRECOMPILE_HEADERS ON)
    endif()
  endforeach()
endforeach()
