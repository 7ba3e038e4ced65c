# What differs between the generators of CPack.
if(CPACK_GENERATOR STREQUAL "TGZ")
  # One archive of everything but the Python package, which has a wheel.
  set(CPACK_MONOLITHIC_INSTALL ON)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
  set(CPACK_PACKAGING_INSTALL_PREFIX /)
endif()
