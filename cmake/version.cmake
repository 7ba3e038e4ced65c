# Writes a source file with the version and the commit of the tree: cmake -DSOURCE=... -DOUTPUT=... -DVERSION=...
# [-DCOMMIT=...] -P version.cmake
#
# Every build runs it, so the commit is never stale; the file is touched only when its text
# changes. COMMIT is for a tree without git, such as a source package; with neither it is "unknown".
cmake_minimum_required(VERSION 3.25)

if(NOT COMMIT)
  execute_process(
    COMMAND git -c safe.directory=* describe --always --dirty --abbrev=10 --exclude *
    WORKING_DIRECTORY ${SOURCE}
    OUTPUT_VARIABLE COMMIT
    OUTPUT_STRIP_TRAILING_WHITESPACE
    ERROR_QUIET
    RESULT_VARIABLE failed)
  if(failed OR NOT EXISTS ${SOURCE}/.git)
    set(COMMIT unknown)
  endif()
endif()
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT
"// Written by the build.
namespace tessel {
extern const char built_version[] = \"@VERSION@\";
extern const char built_commit[] = \"@COMMIT@\";
// What `strings` finds in a program that has no option to print it.
[[gnu::used]] static const char identification[] = \"tessel @VERSION@ (@COMMIT@)\";
}  // namespace tessel
")
