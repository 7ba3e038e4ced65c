#include "certify/kept_files.h"

#include "certify/file_text.h"

#include <array>
#include <filesystem>
#include <system_error>

namespace tessel::certify {

namespace {

namespace fs = std::filesystem;

struct KeptFile {
    const char* name;
    const char* ending;
};

constexpr std::array<KeptFile, 7> kept = {{{"truth", ".jsonl"},
                                           {"out", ".jsonl"},
                                           {"handler", ".log"},
                                           {"feed", ".log"},
                                           {"feed", ".pcap"},
                                           {"traffic", ".log"},
                                           {"command", ".txt"}}};
constexpr unsigned feeds_max = 8;

// Every name that a kept file can have.
std::vector<std::string> kept_names() {
    std::vector<std::string> names;
    for (const KeptFile& file : kept) {
        names.push_back(std::string(file.name) + file.ending);
        for (unsigned index = 2; index <= feeds_max; ++index) {
            names.push_back(file.name + std::to_string(index) + file.ending);
        }
    }
    return names;
}

// Moves a regular file; across file systems it is copied.
void move_file(const fs::path& from, const fs::path& to) {
    std::error_code problem;
    if (!fs::is_regular_file(fs::symlink_status(from, problem))) {
        return;
    }
    fs::rename(from, to, problem);
    if (problem) {
        fs::copy_file(from, to, fs::copy_options::overwrite_existing, problem);
    }
    if (problem) {
        print_error(to.string() + ": " + problem.message());
    }
}

}  // namespace

void keep_files(const CaseJob& job, CaseResult& result) {
    if (job.kept_folder.empty()) {
        return;
    }
    std::error_code problem;
    fs::create_directories(job.kept_folder, problem);
    std::string error = problem ? job.kept_folder + ": " + problem.message() : "";
    if (!error.empty() || !write_file(job.folder + "/command.txt", job.command + "\n", error)) {
        print_error(error);
        return;
    }
    for (const std::string& name : kept_names()) {
        move_file(fs::path(job.folder) / name, fs::path(job.kept_folder) / name);
    }
    result.folder = job.kept_folder;
}

void remove_kept(const CaseJob& job) {
    if (job.kept_folder.empty()) {
        return;
    }
    std::error_code problem;
    for (const std::string& name : kept_names()) {
        fs::remove(fs::path(job.kept_folder) / name, problem);
    }
    fs::remove(job.kept_folder, problem);                          // when it is empty
    fs::remove(fs::path(job.kept_folder).parent_path(), problem);  // likewise the group's
}

std::string file_word(const std::string& text) {
    std::string word;
    for (const char letter : text) {
        const bool plain = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
                           (letter >= '0' && letter <= '9') || letter == '-' || letter == '_' ||
                           (letter == '.' && !word.empty());
        word += plain ? letter : '_';
    }
    return word;
}

}  // namespace tessel::certify
