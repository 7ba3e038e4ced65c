# Fuzz targets: tests/fuzz/X_fuzz.cpp with its corpus in tests/fuzz/corpus/X/.
#
# Every preset runs each target over its corpus as a plain test, so that no target rots. With the sanitizers
# that is the fuzz program itself (X_fuzz, which also fuzzes when started by hand); elsewhere it is one
# small program, fuzz_corpus, that holds all targets.

# A target that includes a header of a tool which is left out is left out with it.
file(GLOB fuzz_files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/fuzz/*_fuzz.cpp)
foreach(tool ${tools_declared})
  if(NOT tool IN_LIST tools_here)
    foreach(file ${fuzz_files})
      file(STRINGS ${file} needs_tool REGEX "^#include \"${tool}/")
      if(needs_tool)
        list(REMOVE_ITEM fuzz_files ${file})
      endif()
    endforeach()
  endif()
endforeach()
if(fuzz_files AND TARGET tessel_test_support)
  # The markets in memory and the receivers that follow them are the tests' own.
  set(fuzz_libs tessel_test_support ${tools_here})
  list(TRANSFORM fuzz_libs REPLACE "^([^_]+)$" "tessel_\\1_lib")
  set(fuzz_declarations "")
  set(fuzz_rows "")
  set(fuzz_wrappers "")
  foreach(file ${fuzz_files})
    get_filename_component(stem ${file} NAME_WE)
    string(REGEX REPLACE "_fuzz$" "" name ${stem})
    set(corpus ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${name})
    if(TESSEL_SANITIZE)
      add_executable(${stem} ${file})
      target_link_libraries(${stem} PRIVATE ${fuzz_libs})
      target_link_options(${stem} PRIVATE -fsanitize=fuzzer)
      add_test(NAME fuzz.${name} COMMAND ${stem} -runs=0 ${corpus})
    else()
      # The wrapper gives the target's entry point a unique name, so that all fit into one program.
      set(wrapper ${CMAKE_BINARY_DIR}/fuzz_wrappers/${stem}.cpp)
      file(CONFIGURE OUTPUT ${wrapper} CONTENT
        "#define LLVMFuzzerTestOneInput fuzz_${name}\n#include \"${file}\"\n")
      list(APPEND fuzz_wrappers ${wrapper})
      string(APPEND fuzz_declarations "extern \"C\" int fuzz_${name}(const unsigned char* data, unsigned long size);\n")
      string(APPEND fuzz_rows "    {\"${name}\", fuzz_${name}},\n")
      add_test(NAME fuzz.${name} COMMAND fuzz_corpus ${name} ${corpus})
    endif()
    set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
  endforeach()
  if(NOT TESSEL_SANITIZE)
    file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/fuzz_wrappers/fuzz_targets.inc CONTENT
      "${fuzz_declarations}\nconstexpr FuzzTarget fuzz_targets[] = {\n${fuzz_rows}};\n")
    add_executable(fuzz_corpus ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus_main.cpp ${fuzz_wrappers})
    target_include_directories(fuzz_corpus PRIVATE ${CMAKE_BINARY_DIR}/fuzz_wrappers ${PROJECT_SOURCE_DIR}/tests/fuzz)
    target_compile_options(fuzz_corpus PRIVATE -O1)
    target_link_libraries(fuzz_corpus PRIVATE ${fuzz_libs})
  endif()
endif()
