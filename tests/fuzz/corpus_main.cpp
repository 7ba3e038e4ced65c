// Runs one fuzz target over every file of the folders given: fuzz_corpus TARGET FOLDER...
//
// The exit status is 0 when every input was taken, 1 when there was nothing to run, 2 on a bad command line.
// A target that fails ends the process itself, so the input's name is printed before the target sees it.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

struct FuzzTarget {
    const char* name;
    int (*run)(const unsigned char* data, unsigned long size);
};

#include "fuzz_targets.inc"

namespace {

// Every regular file of a folder in name order, so that two runs do the same thing in the same order.
std::vector<std::filesystem::path> inputs_of(const std::string& folder) {
    std::vector<std::filesystem::path> inputs;
    if (std::filesystem::is_directory(folder)) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            if (entry.is_regular_file()) {
                inputs.push_back(entry.path());
            }
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

std::vector<unsigned char> bytes_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

int main(int argc, char** argv) {
    const std::string wanted = argc > 1 ? argv[1] : "";
    const auto* const target = std::find_if(std::begin(fuzz_targets), std::end(fuzz_targets),
                                            [&](const FuzzTarget& each) { return wanted == each.name; });
    if (target == std::end(fuzz_targets) || argc < 3) {
        std::fprintf(stderr, "usage: fuzz_corpus TARGET FOLDER...; no target '%s'\n", wanted.c_str());
        return 2;
    }
    int inputs_run = 0;
    for (int i = 2; i < argc; ++i) {
        for (const auto& path : inputs_of(argv[i])) {
            const std::vector<unsigned char> bytes = bytes_of(path);
            std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
            std::fflush(stdout);
            // The heap block is sized to the byte, so reading past the end shows under a memory checker.
            target->run(bytes.data(), bytes.size());
            ++inputs_run;
        }
    }
    std::printf("%s: %d inputs\n", target->name, inputs_run);
    return inputs_run > 0 ? 0 : 1;
}
