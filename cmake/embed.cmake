# Writes a C++ file that holds every file of a folder: cmake -DFOLDER=... -DOUTPUT=... -P embed.cmake
# The declarations are in tools/console/assets.h.

file(GLOB files ${FOLDER}/*)
list(SORT files)
set(arrays "")
set(rows "")
set(number 0)
foreach(file ${files})
  get_filename_component(name ${file} NAME)
  file(READ ${file} bytes HEX)
  string(LENGTH "${bytes}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "(................................)" "\\1\n    " bytes "${bytes}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1, " bytes "${bytes}")
  # A last byte of its own, since an array must not be empty.
  string(APPEND arrays "const unsigned char file_${number}[] = {\n    ${bytes}0};\n\n")
  string(APPEND rows "    {\"${name}\", {reinterpret_cast<const char*>(file_${number}), ${size}}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "// Made from the files of the page.
#include \"console/assets.h\"

namespace tessel::console {

namespace {

${arrays}const Asset assets[] = {
${rows}};

}  // namespace

std::span<const Asset> page_assets() {
    return assets;
}

}  // namespace tessel::console
")
