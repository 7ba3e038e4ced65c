#include "channels/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace tessel::channels {

namespace {

bool fail(const std::string& path, std::string& error) {
    error = path + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool read_text_file(const std::string& path, std::size_t bytes_max, std::string& text, std::string& error) {
    std::FILE* const file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        return fail(path, error);
    }
    text.clear();
    char block[65536];
    std::size_t length = 0;
    while (text.size() <= bytes_max && (length = std::fread(block, 1, sizeof block, file)) > 0) {
        text.append(block, length);
    }
    const bool good = std::ferror(file) == 0 || fail(path, error);
    std::fclose(file);
    if (good && text.size() > bytes_max) {
        error = path + ": longer than " + std::to_string(bytes_max) + " bytes";
        return false;
    }
    return good;
}

bool make_folder(const std::string& path, std::string& error) {
    std::error_code fault;
    std::filesystem::create_directories(path, fault);
    if (fault || !std::filesystem::is_directory(path, fault)) {
        error = path + ": " + (fault ? fault.message() : "not a directory");
        return false;
    }
    return true;
}

bool write_text_file(const std::string& path, std::string_view text, std::string& error) {
    const std::string temporary = path + ".tmp";
    std::FILE* const file = std::fopen(temporary.c_str(), "we");
    if (file == nullptr) {
        return fail(temporary, error);
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) != 0 || !written || std::rename(temporary.c_str(), path.c_str()) != 0) {
        fail(path, error);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace tessel::channels
