# Every file of page/ becomes part of the program, so that the page needs no file beside it.
file(GLOB console_page CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/page/*)
set(console_assets ${CMAKE_BINARY_DIR}/generated/console_assets.cpp)
add_custom_command(
  OUTPUT ${console_assets}
  COMMAND ${CMAKE_COMMAND} -DFOLDER=${CMAKE_CURRENT_LIST_DIR}/page -DOUTPUT=${console_assets}
          -P ${PROJECT_SOURCE_DIR}/cmake/embed.cmake
  DEPENDS ${console_page} ${PROJECT_SOURCE_DIR}/cmake/embed.cmake
  COMMENT "")

tessel_tool(tessel-console
  PACKAGES CLI11 fmt nlohmann_json Threads httplib prometheus
  LIBRARIES tessel_receiver
  TOOLS common ctl
  SOURCES ${console_assets})
