// Makes the files that come from the layout table: tessel_reference TREE
//
// With --check it writes nothing and ends with status 1 when a file in the tree is not what it would write.

#include "reference/generated.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

using tessel::reference::GeneratedFile;

std::string read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<GeneratedFile> make_files(const std::filesystem::path& tree) {
    std::vector<GeneratedFile> files = tessel::reference::make_vectors();
    files.push_back(tessel::reference::make_messages_page());
    files.push_back(tessel::reference::make_dissector(read_file(tree / "tools/wireshark/tessel.lua")));
    return files;
}

// Files in vectors/ that no kind of message has.
int count_strays(const std::filesystem::path& tree, const std::vector<GeneratedFile>& files) {
    std::set<std::filesystem::path> made;
    for (const GeneratedFile& file : files) {
        made.insert(tree / file.path);
    }
    int strays = 0;
    for (const auto& entry : std::filesystem::directory_iterator(tree / "vectors")) {
        if (made.count(entry.path()) == 0) {
            std::fprintf(stderr, "tessel_reference: %s is of no kind of message\n", entry.path().c_str());
            ++strays;
        }
    }
    return strays;
}

int check(const std::filesystem::path& tree) {
    const std::vector<GeneratedFile> files = make_files(tree);
    int stale = count_strays(tree, files);
    for (const GeneratedFile& file : files) {
        if (read_file(tree / file.path) != file.text) {
            std::fprintf(stderr, "tessel_reference: %s is stale: run scripts/generate\n", file.path.c_str());
            ++stale;
        }
    }
    return stale == 0 ? 0 : 1;
}

int write(const std::filesystem::path& tree) {
    std::filesystem::create_directories(tree / "vectors");
    for (const GeneratedFile& file : make_files(tree)) {
        if (read_file(tree / file.path) == file.text) {
            continue;
        }
        std::ofstream out(tree / file.path, std::ios::binary);
        out << file.text;
        out.close();
        if (!out) {
            std::fprintf(stderr, "tessel_reference: cannot write %s\n", file.path.c_str());
            return 1;
        }
        std::printf("%s\n", file.path.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool checks = argc == 3 && std::string(argv[1]) == "--check";
    if (argc != 2 && !checks) {
        std::fputs("usage: tessel_reference [--check] TREE\n", stderr);
        return 2;
    }
    try {
        return checks ? check(argv[2]) : write(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessel_reference: %s\n", error.what());
        return 1;
    }
}
