#pragma once

#include <string>
#include <string_view>

namespace tessel {

// The version of the project, such as "1.0.0"; CMakeLists.txt holds it.
std::string_view version();

// The commit that was built, such as "3e7fe71abc", with "-dirty" after it when files of the tree had changed;
// "unknown" when the tree came without its history.
std::string_view commit();

// What `program --version` prints, without the line's end: "tessel-judge 1.0.0 (3e7fe71abc)".
std::string version_line(std::string_view program);

}  // namespace tessel
