#pragma once

#include <span>
#include <string_view>

// The files of the page, compiled into the program: every file of tools/console/page.
namespace tessel::console {

struct Asset {
    std::string_view name;  // without a folder
    std::string_view bytes;
};

std::span<const Asset> page_assets();

}  // namespace tessel::console
