#include "console/textfile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tessel::console {

bool write_textfile(const std::string& directory, const std::string& text, std::string& error) {
    const std::string path = directory + "/tessel.prom";
    const std::string temporary = path + ".tmp";
    std::FILE* const file = std::fopen(temporary.c_str(), "w");
    bool good = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    good = file != nullptr && std::fclose(file) == 0 && good;
    if (!good || std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "--textfile: '" + (good ? path : temporary) + "': " + std::strerror(errno);
        if (file != nullptr) {
            std::remove(temporary.c_str());
        }
        return false;
    }
    return true;
}

}  // namespace tessel::console
