# Whole-process tests in Python: each file is one ctest entry. They find the programs through TESSEL_BIN.

function(tessel_pytest folder label)
  file(GLOB files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/${folder}/*_test.py)
  foreach(file ${files})
    get_filename_component(stem ${file} NAME_WE)
    add_test(NAME ${label}.${stem}
      COMMAND /usr/bin/python3 -m pytest -q -p no:cacheprovider
              --junit-xml=${CMAKE_BINARY_DIR}/junit/${label}.${stem}.xml ${file})
    set_tests_properties(${label}.${stem} PROPERTIES
      ENVIRONMENT "TESSEL_BIN=${CMAKE_BINARY_DIR};TESSEL_BUILD=${CMAKE_BINARY_DIR};TESSEL_SOURCE=${PROJECT_SOURCE_DIR};PYTHONPATH=${PROJECT_SOURCE_DIR}/tests;PYTHONDONTWRITEBYTECODE=1"
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      LABELS ${label}
      TIMEOUT 240)
  endforeach()
endfunction()

tessel_pytest(e2e e2e)
tessel_pytest(tools tools)
tessel_pytest(checks checks)

# Memcheck and the address sanitizer exclude each other.
if(NOT TESSEL_SANITIZE AND tools_here AND TARGET unit_tests)
  find_program(TESSEL_VALGRIND valgrind)
  if(TESSEL_VALGRIND)
    tessel_pytest(valgrind valgrind)
  else()
    tessel_missing("the tests under memcheck" "valgrind")
  endif()
endif()
