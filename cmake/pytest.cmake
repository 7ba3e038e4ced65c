# Whole-process tests in Python: each file is one ctest entry. They find the programs through TESSEL_BIN.

function(tessel_pytest folder label)
  file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/${folder}/*_test.py)
  if(TESSEL_SANITIZE)
    # Memcheck and the address sanitizer exclude each other.
    list(FILTER files EXCLUDE REGEX "/memcheck_test\\.py$")
  endif()
  if(NOT TESSEL_HARDENING OR TESSEL_SANITIZE OR CMAKE_BUILD_TYPE STREQUAL "Debug")
    list(FILTER files EXCLUDE REGEX "/hardening_test\\.py$")
  endif()
  if(NOT manual_made)
    list(FILTER files EXCLUDE REGEX "/(manual|package|install|container|handler_ci|channel_services)_test\\.py$")
  endif()
  foreach(file ${files})
    get_filename_component(stem ${file} NAME_WE)
    add_test(NAME ${label}.${stem}
      COMMAND /usr/bin/python3 -m pytest -q -p no:cacheprovider
              --junit-xml=${CMAKE_BINARY_DIR}/junit/${label}.${stem}.xml ${file})
    set_tests_properties(${label}.${stem} PROPERTIES
      ENVIRONMENT "TESSEL_BIN=${CMAKE_BINARY_DIR};TESSEL_BUILD=${CMAKE_BINARY_DIR};TESSEL_SOURCE=${PROJECT_SOURCE_DIR};PYTHONPATH=${PROJECT_SOURCE_DIR}/tests;PYTHONDONTWRITEBYTECODE=1"
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      LABELS ${label})
  endforeach()
endfunction()

tessel_pytest(e2e e2e)
tessel_pytest(interop interop)
tessel_pytest(build build)
