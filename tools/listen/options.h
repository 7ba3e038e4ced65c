#pragma once

#include <netinet/in.h>
#include <cstdint>
#include <string>
#include <vector>

// The command line of tessel-listen.
namespace tessel::listen {

// One of several lines that carry the same feed.
struct LineOption {
    std::string name;
    std::string group;
    std::uint16_t port = 0;
    std::string iface;  // empty: that of --iface
};

constexpr std::size_t line_name_max = 32;

struct Options {
    std::string group = "239.255.25.177";
    std::uint16_t port = 25177;
    std::string iface = "127.0.0.1";
    std::vector<LineOption> lines;  // of --line; without any one line without a name: group, port, iface
    std::int64_t patience_ms = 100;
    std::string session = "UTPBENCH01";
    int receive_buffer_bytes = 32 << 20;

    std::string retrans;  // HOST:PORT; empty: nothing is requested
    sockaddr_in retrans_address{};
    unsigned retries = 5;
    std::int64_t timeout_ms = 250;

    std::string snapshot;  // HOST:PORT; empty: no Snap-Shot
    sockaddr_in snapshot_address{};
    std::int64_t snapshot_timeout_seconds = 30;
    std::string user;
    std::string password;

    std::string channels;      // path of a list of channels; empty: one feed
    std::string out_dir;       // with channels: a directory; empty: no output
    std::size_t threads = 0;   // with channels; 0: as many as there are cores
    bool no_retrans = false;   // with channels: nothing is requested
    bool late = false;         // with channels: each starts from its Snap-Shot
    bool iface_given = false;  // --iface was given; otherwise the list's is used
    bool from_given = false;   // --from was given

    std::uint64_t first_sequence = 0;  // 0: the first one received
    std::string out;                   // a path, "-" for standard output, empty for none
    bool decode = false;
    bool view = false;
    std::uint64_t count = 0;  // 0: no limit
    double seconds = 0;       // 0: no limit
    std::string from_pcap;

    bool latency = false;
    std::string latency_out;  // a directory; empty: no files
    std::string times;        // a path; empty: no file
};

enum class ExitStatus : int { nothing_missing = 0, something_missing = 1, bad_options = 2 };

// "NAME=GROUP:PORT[@IFACE]". False with the reason in `error`.
bool parse_line_option(LineOption& line, const std::string& text, std::string& error);

// Reads the command line into `options`. Returns -1 to go on, or the status to end with: 0 after --help and
// --version, 2 after an error, which has been reported.
int parse_options(Options& options, int argc, const char* const* argv);

}  // namespace tessel::listen
