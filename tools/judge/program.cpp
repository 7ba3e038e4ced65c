#include "judge/program.h"

#include "judge/report.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace tessel::judge {

namespace {

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t put = ::write(fd, text.data(), text.size());
        if (put < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(put < 0 ? 0 : static_cast<std::size_t>(put));
    }
    return true;
}

// Writes a report to its file, "-" for standard output.
bool write_report(const std::string& path, std::string_view text, std::string& error) {
    const bool standard_output = path == "-";
    const int fd = standard_output ? STDOUT_FILENO
                                   : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    bool good = fd >= 0 && write_all(fd, text);
    good = (standard_output || fd < 0 || ::close(fd) == 0) && good;
    if (!good) {
        error = fmt::format("{}: {}", standard_output ? "standard output" : path, std::strerror(errno));
    }
    return good;
}

// A file that takes part, by its device and inode.
struct NamedFile {
    std::string_view role;
    dev_t device = 0;
    ino_t inode = 0;
};

// Adds the regular file of that path; one that does not exist yet is nobody else's.
void add_file(std::string_view role, const std::string& path, std::vector<NamedFile>& files) {
    struct stat facts {};
    if (!path.empty() && path != "-" && ::stat(path.c_str(), &facts) == 0 && S_ISREG(facts.st_mode)) {
        files.push_back({role, facts.st_dev, facts.st_ino});
    }
}

// The files that the reports would go to.
std::vector<NamedFile> report_files(const ProgramOptions& options) {
    std::vector<NamedFile> files;
    add_file("--report", options.html_path, files);
    add_file("--json", options.json_path, files);
    add_file("--junit", options.junit_path, files);
    add_file("--summary-md", options.markdown_path, files);
    return files;
}

// No file may be given twice, whatever its names: a report would overwrite what is judged, or another report.
bool all_differ(const std::vector<NamedFile>& files, std::string& error) {
    for (std::size_t index = 1; index < files.size(); ++index) {
        for (std::size_t before = 0; before != index; ++before) {
            if (files[before].device == files[index].device && files[before].inode == files[index].inode) {
                error = fmt::format("{} and {} are the same file", files[before].role, files[index].role);
                return false;
            }
        }
    }
    return true;
}

bool check_files(const ProgramOptions& options, const Input& truth, const Input& output, std::string& error) {
    std::vector<NamedFile> files = {{"TRUTH", truth.device, truth.inode},
                                    {"OUTPUT", output.device, output.inode}};
    add_file("--times", options.judged.times_path, files);
    const std::vector<NamedFile> reports = report_files(options);
    files.insert(files.end(), reports.begin(), reports.end());
    return all_differ(files, error);
}

bool write_reports(const ProgramOptions& options, const Result& result, std::string& error) {
    const bool text_wanted = options.html_path != "-" && options.json_path != "-" &&
                             options.junit_path != "-" && options.markdown_path != "-";
    return (!text_wanted || write_report("-", text_report(options.judged, result), error)) &&
           (options.html_path.empty() ||
            write_report(options.html_path, html_report(options.judged, result), error)) &&
           (options.json_path.empty() ||
            write_report(options.json_path, json_report(options.judged, result), error)) &&
           (options.junit_path.empty() ||
            write_report(options.junit_path, junit_report(options.judged, result), error)) &&
           (options.markdown_path.empty() ||
            write_report(options.markdown_path, markdown_report(options.judged, result), error));
}

int judge_pair(const ProgramOptions& options) {
    LineSource truth;
    LineSource output;
    const std::array<Input*, 2> inputs = {&truth.input, &output.input};
    Result result;
    std::string error;
    const bool good = open_input(truth.input, options.judged.truth_path, error) &&
                      open_input(output.input, options.judged.output_path, error) &&
                      check_files(options, truth.input, output.input, error) && copy_pipes(inputs, error) &&
                      judge_sources(options.judged, truth, output, result, error) &&
                      write_reports(options, result, error);
    if (!good) {
        print_error(error);
        return status_bad_input;
    }
    return verdict(result) == Verdict::agrees ? status_agrees : status_differs;
}

// Neither the list nor the channels' files may be what the JSON is written to.
bool check_channel_files(const ProgramOptions& options, const std::vector<std::string>& names,
                         std::string& error) {
    const std::vector<NamedFile> reports = report_files(options);
    std::vector<NamedFile> files;
    add_file("--channels", options.channels_path, files);
    files.insert(files.end(), reports.begin(), reports.end());
    if (!all_differ(files, error)) {
        return false;
    }
    for (const std::string& name : names) {
        for (const std::string& folder : {options.judged.truth_path, options.judged.output_path}) {
            const std::string path = channel_file(folder, name);
            struct stat facts {};
            if (::stat(path.c_str(), &facts) != 0) {
                continue;  // reported when it is opened
            }
            for (const NamedFile& report : reports) {
                if (report.device == facts.st_dev && report.inode == facts.st_ino) {
                    error = fmt::format("{} and {} are the same file", path, report.role);
                    return false;
                }
            }
        }
    }
    return true;
}

int judge_all_channels(const ProgramOptions& options) {
    std::vector<std::string> names;
    std::vector<Channel> channels;
    std::string error;
    const bool good =
        read_channel_names(options.channels_path, names, error) &&
        check_channel_files(options, names, error) &&
        judge_channels(options.judged, names, channels, error) &&
        (options.json_path == "-" || write_report("-", text_report(options.judged, channels), error)) &&
        (options.json_path.empty() ||
         write_report(options.json_path, json_report(options.judged, channels), error));
    if (!good) {
        print_error(error);
        return status_bad_input;
    }
    return verdict(channels) == Verdict::agrees ? status_agrees : status_differs;
}

}  // namespace

int run_program(const ProgramOptions& options) {
    return options.channels_path.empty() ? judge_pair(options) : judge_all_channels(options);
}

}  // namespace tessel::judge
