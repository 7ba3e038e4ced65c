# What is installed beside the programs, and the packages that CPack makes of it (scripts/package): tessel,
# libtessel-dev and python3-tessel for Debian, and one archive.

# ------------------------------------------------------------------ manual, completion, pages

# Every program that is built has a page and completions, made from its --help. Made with the release alone: other
# builds do not install.
set(manual ${CMAKE_BINARY_DIR}/manual)
set(programs tessel)
foreach(tool ${tools_here})
  if(${tool}_PROGRAM)
    list(APPEND programs ${${tool}_PROGRAM})
  endif()
endforeach()
find_program(TESSEL_SCDOC scdoc)
find_program(TESSEL_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
set(manual_made OFF)
if(TESSEL_SANITIZE OR CMAKE_BUILD_TYPE STREQUAL "Debug" OR CMAKE_CROSSCOMPILING)
elseif(TESSEL_SCDOC AND TESSEL_PYTHON)
  set(manual_made ON)
else()
  tessel_missing("the manual is" "scdoc or python3")
endif()
if(manual_made)
  file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md released REGEX "^## ${PROJECT_VERSION} \\(")
  string(REGEX REPLACE ".*\\((.*)\\).*" "\\1" released "${released}")
  file(GLOB manual_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*)
  file(GLOB page_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/*.md ${PROJECT_SOURCE_DIR}/docs/*.md
    ${PROJECT_SOURCE_DIR}/docs/images/*.png)
  list(TRANSFORM programs REPLACE "(.+)" "$<TARGET_FILE:\\1>" OUTPUT_VARIABLE program_files)
  add_custom_command(OUTPUT ${manual}/made
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${manual}
    COMMAND ${TESSEL_PYTHON} -B ${PROJECT_SOURCE_DIR}/man/make_pages.py ${program_files} --out ${manual}
            --version ${PROJECT_VERSION} --date ${released}
    COMMAND ${CMAKE_COMMAND} -E touch ${manual}/made
    DEPENDS ${programs} ${manual_sources} ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    COMMENT "Making the manual"
    VERBATIM)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/pages/made
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${CMAKE_BINARY_DIR}/pages
    COMMAND ${TESSEL_PYTHON} -B ${PROJECT_SOURCE_DIR}/packaging/installed_pages.py ${PROJECT_SOURCE_DIR}
            ${CMAKE_BINARY_DIR}/pages
    COMMAND ${CMAKE_COMMAND} -E touch ${CMAKE_BINARY_DIR}/pages/made
    DEPENDS ${page_sources} ${PROJECT_SOURCE_DIR}/packaging/installed_pages.py
    COMMENT "Making the pages of the installation"
    VERBATIM)
  add_custom_target(tessel_manual ALL DEPENDS ${manual}/made ${CMAKE_BINARY_DIR}/pages/made)
  install(DIRECTORY ${manual}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
  install(DIRECTORY ${manual}/bash/ DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(DIRECTORY ${manual}/zsh/ DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  install(DIRECTORY ${CMAKE_BINARY_DIR}/pages/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
    FILES_MATCHING PATTERN "*.md" PATTERN "*.png")
endif()

# ------------------------------------------------------------------ the samples

if(manual_made AND capture IN_LIST tools_here)
  set(samples ${CMAKE_BINARY_DIR}/samples)
  add_custom_command(OUTPUT ${samples}/README.md
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${samples}
    COMMAND ${CMAKE_COMMAND} -E env TESSEL_BIN=$<TARGET_FILE_DIR:tessel-capture>
            ${PROJECT_SOURCE_DIR}/scripts/samples ${samples}
    DEPENDS tessel-capture ${PROJECT_SOURCE_DIR}/scripts/samples ${PROJECT_SOURCE_DIR}/scripts/lib.sh
    COMMENT "Making the samples"
    VERBATIM)
  add_custom_target(tessel_samples ALL DEPENDS ${samples}/README.md)
  install(DIRECTORY ${samples} DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel)
endif()

# ------------------------------------------------------------------ the other files

# Where Wireshark and tshark look for every user's plugins.
set(plugins lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)
install(FILES tools/wireshark/tessel.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel)
install(FILES tools/wireshark/tessel.lua DESTINATION ${plugins})
install(FILES packaging/prometheus/tessel-alerts.yml DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel/console)
install(DIRECTORY tools/console/schema/ DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel/console)
install(DIRECTORY certify/cases DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel/certify FILES_MATCHING PATTERN "*.toml")
install(DIRECTORY vectors DESTINATION ${CMAKE_INSTALL_DATADIR}/tessel)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN __pycache__ EXCLUDE)
install(FILES packaging/tessel@.service DESTINATION lib/systemd/system)
# With the prefix /usr, as in the Debian package, the configuration belongs into /etc.
install(CODE "set(tessel_etc etc/tessel)
if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\" OR CMAKE_INSTALL_PREFIX MATCHES \"/_CPack_Packages/.*/usr$\")
  set(tessel_etc ../etc/tessel)
endif()")
install(FILES packaging/example.toml DESTINATION "\${tessel_etc}")

# ------------------------------------------------------------------ the Python package

# scripts/package unpacks the wheel there. Its place is Debian's, so `cmake --install` leaves it out.
install(DIRECTORY ${CMAKE_BINARY_DIR}/python_package/ DESTINATION lib/python3/dist-packages COMPONENT python
        EXCLUDE_FROM_ALL OPTIONAL)

# ------------------------------------------------------------------ the packages

set(debian_runtime tessel)
set(debian_development libtessel-dev)
set(debian_python python3-tessel)
find_program(TESSEL_GZIP gzip)
foreach(component runtime development python)
  set(documents share/doc/${debian_${component}})
  set(excluded "")
  if(NOT component STREQUAL "runtime")
    set(excluded EXCLUDE_FROM_ALL)
  endif()
  install(FILES packaging/copyright DESTINATION ${documents} COMPONENT ${component} ${excluded})
  if(TESSEL_GZIP)
    set(changelog ${CMAKE_BINARY_DIR}/packaging/${component}/changelog.gz)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging/${component})
    execute_process(COMMAND sed "1s/^tessel /${debian_${component}} /" ${PROJECT_SOURCE_DIR}/packaging/changelog
                    COMMAND ${TESSEL_GZIP} -9n OUTPUT_FILE ${changelog})
    install(FILES ${changelog} DESTINATION ${documents} COMPONENT ${component} ${excluded})
  endif()
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog)

set(CPACK_PACKAGE_NAME tessel)
set(CPACK_PACKAGE_VENDOR "the tessel authors")
set(CPACK_PACKAGE_CONTACT "the tessel authors <maintainers@tessel.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_COMPONENTS_ALL runtime development python)
set(CPACK_ARCHIVE_FILE_NAME tessel_${PROJECT_VERSION}_amd64)
set(CPACK_PACKAGE_FILE_NAME tessel_${PROJECT_VERSION}_amd64)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/package_options.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
foreach(component RUNTIME DEVELOPMENT PYTHON)
  string(TOLOWER ${component} lower)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${debian_${lower}})
  set(CPACK_DEBIAN_${component}_FILE_NAME ${debian_${lower}}_${PROJECT_VERSION}_amd64.deb)
endforeach()
set(CPACK_DEBIAN_PYTHON_FILE_NAME python3-tessel_${PROJECT_VERSION}_all.deb)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "tshark, prometheus, libtessel-dev, python3-tessel")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/conffiles
    ${PROJECT_SOURCE_DIR}/packaging/postinst ${PROJECT_SOURCE_DIR}/packaging/prerm
    ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any, tessel (>= ${PROJECT_VERSION})")
# The first line of each is the package's synopsis; a common summary would take its place.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "market-data feed emulator for testing feed handlers
Publishes a synthetic market as UQDF and UTDF messages over UDP multicast, with
retransmission and Snap-Shot services, and records the truth of every message.
Its companion programs receive the feed, judge a handler's output against the
truth, steer a run, show it in a browser and find out why nothing arrives.")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "receiver library for UQDF and UTDF feeds
Headers and static libraries that put the packets of the feed in order, decode
its messages and rebuild the market from them, for CMake and pkg-config.")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "market-data feed emulator for tests in Python
Starts the feed for a test, steers it, and judges what a handler wrote against
the truth. With fixtures for pytest.")
include(CPack)
