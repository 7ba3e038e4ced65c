# Benchmarks: cmake --build build/release --target benches. They link what the shipped program links.

add_custom_target(benches)

# tessel_bench(glob libs...): each file found is a separate program, named after the file.
function(tessel_bench glob)
  file(GLOB files CONFIGURE_DEPENDS ${glob})
  foreach(file ${files})
    get_filename_component(stem ${file} NAME_WE)
    add_executable(${stem} EXCLUDE_FROM_ALL ${file})
    target_include_directories(${stem} PRIVATE ${PROJECT_SOURCE_DIR}/bench)
    target_link_libraries(${stem} PRIVATE tessel_program ${ARGN})
    add_dependencies(benches ${stem})
  endforeach()
endfunction()

tessel_bench(${PROJECT_SOURCE_DIR}/bench/*_bench.cpp benchmark::benchmark)
tessel_bench(${PROJECT_SOURCE_DIR}/bench/throughput/*.cpp)
tessel_bench(${PROJECT_SOURCE_DIR}/bench/profile/*.cpp)
# The check of the instruction budget counts this one's: it is small, and always there.
set_target_properties(tick_profile PROPERTIES EXCLUDE_FROM_ALL FALSE)
