#include "base/version.h"

namespace tessel {

// In a file that the build writes: cmake/version.cmake.
extern const char built_version[];
extern const char built_commit[];

std::string_view version() {
    return built_version;
}

std::string_view commit() {
    return built_commit;
}

std::string version_line(std::string_view program) {
    return std::string(program) + " " + built_version + " (" + built_commit + ")";
}

}  // namespace tessel
