# tessel_certify_test(): a feed handler against the catalog of cases, as a test of CTest. Installed for find_package(tessel).
#
#   tessel_certify_test(NAME name HANDLER "command" [LATE_ARG "text"] [GROUPS group...] [CASES group/case...]
#                       [OPTIONS option...])
#
# HANDLER is the command line that tessel-certify runs, with its placeholders: {group} {port} {iface} {session} {retrans}
# {snapshot} {out} {late}; generator expressions such as $<TARGET_FILE:my_handler> may be in it. LATE_ARG is what {late}
# becomes where the handler joins in mid-run. Without GROUPS and CASES the whole catalog is run. OPTIONS are further
# options of tessel-certify.
#
# The reports (scorecard.html, results.json, junit.xml) and the files of cases that fail are in
# CMAKE_CURRENT_BINARY_DIR/tessel-certify/NAME.
find_program(TESSEL_CERTIFY tessel-certify HINTS ENV TESSEL_BIN "${CMAKE_CURRENT_LIST_DIR}/../../../../bin"
             "${CMAKE_CURRENT_LIST_DIR}/../../../bin")

function(tessel_certify_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME;HANDLER;LATE_ARG" "GROUPS;CASES;OPTIONS")
  if(NOT arg_NAME OR NOT arg_HANDLER)
    message(FATAL_ERROR "tessel_certify_test needs NAME and HANDLER")
  endif()
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tessel_certify_test does not know: ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT TESSEL_CERTIFY)
    message(FATAL_ERROR "tessel_certify_test(${arg_NAME}): tessel-certify is not installed, or not found; "
                        "TESSEL_CERTIFY may name it")
  endif()
  set(folder "${CMAKE_CURRENT_BINARY_DIR}/tessel-certify/${arg_NAME}")
  file(MAKE_DIRECTORY "${folder}")
  set(words "${TESSEL_CERTIFY}" "--handler=${arg_HANDLER}" "--out=${folder}/failed" "--html=${folder}/scorecard.html"
      "--json=${folder}/results.json" "--junit=${folder}/junit.xml")
  if(DEFINED arg_LATE_ARG)
    list(APPEND words "--late-arg=${arg_LATE_ARG}")
  endif()
  if(arg_GROUPS)
    list(JOIN arg_GROUPS "," groups)
    list(APPEND words "--group=${groups}")
  endif()
  if(arg_CASES)
    list(JOIN arg_CASES "," cases)
    list(APPEND words "--only=${cases}")
  endif()
  add_test(NAME "${arg_NAME}" COMMAND ${words} ${arg_OPTIONS})
  # Cases run side by side; a second catalog beside it would compete for the processors.
  set_tests_properties("${arg_NAME}" PROPERTIES LABELS tessel RUN_SERIAL ON)
endfunction()
