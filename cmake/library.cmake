# The installable libraries: tessel::wire (encoders, decoder, layouts) and tessel::receiver (sequencer, market, truth
# lines, sockets), for handlers and their tests. They are compiled for themselves, without link-time optimization, so
# that any compiler can link them, and hold only what the list of public headers needs.

# No promise of a stable interface yet: a minor version may change it.
set(library_version 0.1.0)

set(wire_headers
  base/byte_order.h wire/admin_messages.h wire/codes.h wire/field_table.h wire/layout.h wire/message_decoder.h
  wire/message_json.h wire/message_writer.h wire/quote_messages.h wire/trade_messages.h)
set(receiver_headers
  base/clock.h mold/history_search.h mold/line_arbiter.h mold/packet.h mold/restart_detector.h mold/sequencer.h
  soup/soup_packet.h receiver/market_state.h receiver/snapshot_client.h receiver/sockets.h receiver/truth_line.h)

# In the installed headers every include of ours names the library: <tessel/wire/layout.h>.
set(public_headers ${CMAKE_BINARY_DIR}/include/tessel)
foreach(header ${wire_headers} ${receiver_headers})
  set(source ${PROJECT_SOURCE_DIR}/src/${header})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(READ ${source} text)
  string(REGEX REPLACE "#include \"([a-z_]+/[a-z_]+\\.h)\"" "#include <tessel/\\1>" text "${text}")
  file(CONFIGURE OUTPUT ${public_headers}/${header} CONTENT "${text}" @ONLY)
endforeach()

file(GLOB wire_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/wire/*.cpp)
file(GLOB receiver_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/receiver/*.cpp
     ${PROJECT_SOURCE_DIR}/src/soup/*.cpp)
list(APPEND receiver_sources src/mold/sequencer.cpp src/mold/gap_requests.cpp src/mold/history_search.cpp
     src/mold/line_arbiter.cpp
     src/mold/restart_detector.cpp src/base/clock.cpp)

# tessel_installed_library(name sources...): libtessel-NAME.a, exported as tessel::NAME.
function(tessel_installed_library name)
  set(target tessel_installed_${name})
  add_library(${target} STATIC ${ARGN})
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -fPIC)
  target_include_directories(${target}
    PRIVATE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
    INTERFACE $<BUILD_INTERFACE:${CMAKE_BINARY_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME tessel-${name} EXPORT_NAME ${name})
  install(TARGETS ${target} EXPORT tessel ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  if(name STREQUAL receiver)
    set(needs "tessel-wire")
  else()
    set(needs "")
  endif()
  # Wherever it is installed: a package has another prefix than the one configured.
  file(RELATIVE_PATH to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/tessel-${name}.pc @ONLY CONTENT
"prefix=\${pcfiledir}/@to_prefix@
libdir=\${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=\${prefix}/@CMAKE_INSTALL_INCLUDEDIR@

Name: tessel-@name@
Description: The @name@ library of the tessel market-data feed emulator
Version: @library_version@
Requires: @needs@
Libs: -L\${libdir} -ltessel-@name@
Cflags: -I\${includedir} -std=c++20
")
  install(FILES ${CMAKE_BINARY_DIR}/tessel-${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endfunction()

tessel_installed_library(wire ${wire_sources})
tessel_installed_library(receiver ${receiver_sources})
target_link_libraries(tessel_installed_receiver PUBLIC tessel_installed_wire)

install(DIRECTORY ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
# For the tests of a handler: one header that needs neither of the libraries.
install(FILES tools/testing/feed.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessel/testing COMPONENT development)
install(EXPORT tessel NAMESPACE tessel:: FILE tesselTargets.cmake DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tessel
        COMPONENT development)
include(CMakePackageConfigHelpers)
file(WRITE ${CMAKE_BINARY_DIR}/tesselConfig.cmake
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/tesselTargets.cmake\")\n"
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/tesselCertify.cmake\")\n")
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tesselConfigVersion.cmake VERSION ${library_version}
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tesselConfig.cmake ${CMAKE_BINARY_DIR}/tesselConfigVersion.cmake
        ${PROJECT_SOURCE_DIR}/cmake/tesselCertify.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tessel COMPONENT development)
