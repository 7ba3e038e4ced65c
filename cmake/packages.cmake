# The libraries that tools may use: tessel_package(KEY DEBIAN package TARGET target [PKGCONFIG module])
#
# Without PKGCONFIG the library is looked for with find_package(KEY). Where it is found, package_KEY is its target; else
# package_KEY is empty. scripts/lib.sh reads the names of the Debian packages from the lines below.

function(tessel_package key)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DEBIAN;TARGET;PKGCONFIG" "")
  set(found OFF)
  if(arg_PKGCONFIG)
    find_package(PkgConfig QUIET)
    if(PkgConfig_FOUND AND NOT CMAKE_DISABLE_FIND_PACKAGE_${key})
      pkg_check_modules(${key} QUIET IMPORTED_TARGET ${arg_PKGCONFIG})
      set(found ${${key}_FOUND})
    endif()
  else()
    find_package(${key} QUIET)
    set(found ${${key}_FOUND})
  endif()
  if(found)
    set(package_${key} ${arg_TARGET} PARENT_SCOPE)
  endif()
  set(debian_${key} ${arg_DEBIAN} PARENT_SCOPE)
endfunction()

tessel_package(CLI11 DEBIAN libcli11-dev TARGET CLI11::CLI11)
tessel_package(fmt DEBIAN libfmt-dev TARGET fmt::fmt)
tessel_package(nlohmann_json DEBIAN nlohmann-json3-dev TARGET nlohmann_json::nlohmann_json)
