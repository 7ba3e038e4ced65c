#pragma once

// A feed for one test of a handler, with any test framework:
//
//     tessel::testing::Feed feed({.symbols = "AAPL:190.00", .interval_ms = 10});
//     my_handler.start(feed.group(), feed.port(), feed.retrans(), "out.jsonl");
//     feed.command("halt AAPL");
//     feed.silence();
//     my_handler.stop();
//     const tessel::testing::Judgment judgment = tessel::testing::judge(feed.truth(), "out.jsonl");
//     EXPECT_TRUE(judgment.agrees) << judgment.text;
//
// Needs POSIX and the C++ library alone, and the programs `tessel` and `tessel-judge`: in the folder that the
// environment variable TESSEL_BIN names, otherwise on the search path. What fails throws std::runtime_error
// with the program's words. TESSEL_TIME_SCALE lengthens every wait, for a slow or busy machine.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tessel::testing {

inline std::string program(const std::string& name) {
    const char* const folder = std::getenv("TESSEL_BIN");
    return folder == nullptr ? name : std::string(folder) + "/" + name;
}

inline double time_scale() {
    const char* const scale = std::getenv("TESSEL_TIME_SCALE");
    return scale == nullptr ? 1.0 : std::max(1.0, std::strtod(scale, nullptr));
}

inline std::string text_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Starts a program whose output goes to a file. It ends with the thread that started it, if not before.
// `environment` are variables that it gets beside this program's, TESSEL_SCENARIO excluded.
inline pid_t start(const std::vector<std::string>& words, const std::filesystem::path& log,
                   const std::vector<std::pair<std::string, std::string>>& environment = {}) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (child != 0) {
        return child;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(126);
    }
    const int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666);
    const int nothing = ::open("/dev/null", O_RDONLY);
    if (::dup2(nothing, STDIN_FILENO) < 0 || ::dup2(file, STDOUT_FILENO) < 0 ||
        ::dup2(file, STDERR_FILENO) < 0) {
        ::_exit(126);
    }
    ::unsetenv("TESSEL_SCENARIO");
    for (const auto& [name, value] : environment) {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    ::execvp(arguments[0], arguments.data());
    const std::string words_of_failure = words[0] + ": " + std::strerror(errno) + "\n";
    ::_exit(::write(STDERR_FILENO, words_of_failure.data(), words_of_failure.size()) < 0 ? 126 : 127);
}

// Asks until the answer is true; false after the time, which TESSEL_TIME_SCALE lengthens.
inline bool wait_until(const std::function<bool()>& condition, double seconds = 30) {
    const auto begin = std::chrono::steady_clock::now();
    while (!condition()) {
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        if (passed.count() > seconds * time_scale()) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

struct FeedOptions {
    std::string symbols = {};               // "AAPL:190.00,MSFT:410.00"; "" for the feed's own
    int interval_ms = 0;                    // 0: the feed's own
    std::uint64_t seed = 0;                 // 0: the feed's own
    std::string scenario = {};              // the text of TESSEL_SCENARIO
    std::vector<std::string> options = {};  // further ones of the command line
};

// One run of the feed on free ports and a private group, ready when the constructor returns.
class Feed {
public:
    explicit Feed(const FeedOptions& options = {}) {
        constexpr int tries = 5;  // another program may take a port before the feed does
        for (int attempt = 1; child_ == 0; ++attempt) {
            try {
                run(options);
            } catch (const std::runtime_error&) {
                if (attempt == tries || log().find("in use") == std::string::npos) {
                    std::filesystem::remove_all(folder_);
                    throw;
                }
            }
        }
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;
    ~Feed() {
        close();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    const std::string& group() const {
        return group_;
    }
    std::uint16_t port() const {
        return port_;
    }
    std::string iface() const {
        return "127.0.0.1";
    }
    std::string session() const {
        return "UTPBENCH01";
    }
    std::string retrans() const {
        return "127.0.0.1:" + std::to_string(ports_[0]);
    }
    std::string snapshot() const {
        return "127.0.0.1:" + std::to_string(ports_[1]);
    }
    std::string control() const {
        return "127.0.0.1:" + std::to_string(ports_[2]);
    }
    // Its files are removed with it.
    std::filesystem::path folder() const {
        return folder_;
    }
    std::string truth() const {
        return folder_ / "truth.jsonl";
    }
    // What it has printed so far.
    std::string log() const {
        return text_of(folder_ / "feed.log");
    }

    // Sends a command of the control channel, "halt AAPL" say, and returns the reply.
    std::string command(const std::string& text) const {
        const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto seconds = static_cast<time_t>(10 * time_scale());
        const timeval limit{seconds, 0};
        ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        const sockaddr_in address = loopback(ports_[2]);
        std::string reply(65536, '\0');
        const bool sent =
            ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            ::send(socket, text.data(), text.size(), 0) >= 0;
        const ssize_t size = sent ? ::recv(socket, reply.data(), reply.size(), 0) : -1;
        ::close(socket);
        if (size < 0) {
            throw std::runtime_error("the feed gave no answer to '" + text + "':\n" + log());
        }
        reply.resize(static_cast<std::size_t>(size));
        while (reply.ends_with('\n')) {
            reply.pop_back();
        }
        return reply;
    }

    // The number of the message that comes next.
    std::uint64_t next_sequence() const {
        const std::string reply = command("stats");
        const std::size_t place = reply.find("next_seq=");
        return place == std::string::npos ? 0 : std::strtoull(reply.c_str() + place + 9, nullptr, 10);
    }

    void wait_for_messages(std::uint64_t number) const {
        if (!wait_until([&] { return next_sequence() > number; })) {
            throw std::runtime_error("the feed did not send message " + std::to_string(number) + ":\n" +
                                     log());
        }
    }

    // Freezes the market and waits for a heartbeat, which shows every receiver the last number. Returns that
    // number.
    std::uint64_t silence() const {
        const int tap = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int yes = 1;
        const timeval limit{1, 0};
        ::setsockopt(tap, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        ::setsockopt(tap, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address = loopback(port_);
        ip_mreq membership{};
        ::inet_pton(AF_INET, group_.c_str(), &address.sin_addr);
        membership.imr_multiaddr = address.sin_addr;
        membership.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(tap, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::setsockopt(tap, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
        command("rate -1");
        const std::uint64_t next = next_sequence();
        const bool silent = wait_until([&] {
            unsigned char packet[2048];
            const ssize_t size = ::recv(tap, packet, sizeof packet, 0);
            std::uint64_t number = 0;  // 8 bytes after the session's ten, then the count
            for (int at = 10; at != 18; ++at) {
                number = number << 8 | packet[at];
            }
            return size == 20 && packet[18] == 0 && packet[19] == 0 && number == next;
        });
        ::close(tap);
        if (!silent) {
            throw std::runtime_error("the feed sent no heartbeat:\n" + log());
        }
        return next - 1;
    }

    // Stops the feed and returns its exit status, negative for a signal.
    int close() {
        if (child_ != 0) {
            ::kill(child_, SIGINT);
            int status = 0;
            if (!wait_until([&] { return ::waitpid(child_, &status, WNOHANG) != 0; })) {
                ::kill(child_, SIGKILL);
                ::waitpid(child_, &status, 0);
            }
            child_ = 0;
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        return status_;
    }

private:
    static sockaddr_in loopback(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    // Below the range from which the system takes ports by itself, and free for UDP and TCP.
    static std::uint16_t free_port(std::mt19937& random) {
        while (true) {
            const auto port = static_cast<std::uint16_t>(20000 + random() % 12000);
            const sockaddr_in address = loopback(port);
            bool free = true;
            for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
                const int socket = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
                free =
                    free && ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
                ::close(socket);
            }
            if (free) {
                return port;
            }
        }
    }

    void run(const FeedOptions& options) {
        std::string name = (std::filesystem::temp_directory_path() / "tessel-XXXXXX").string();
        if (folder_.empty()) {
            if (::mkdtemp(name.data()) == nullptr) {
                throw std::runtime_error(name + ": " + std::strerror(errno));
            }
            folder_ = name;
        }
        std::mt19937 random(std::random_device{}());
        group_ = "239.255." + std::to_string(1 + random() % 254) + "." + std::to_string(1 + random() % 254);
        port_ = free_port(random);
        for (std::uint16_t& port : ports_) {
            port = free_port(random);
        }
        std::vector<std::string> words = {program("tessel"),
                                          "--mcast",
                                          group_,
                                          "--port",
                                          std::to_string(port_),
                                          "--iface",
                                          iface(),
                                          "--session",
                                          session(),
                                          "--truth-out",
                                          truth(),
                                          "--retrans-port",
                                          std::to_string(ports_[0]),
                                          "--snapshot-port",
                                          std::to_string(ports_[1]),
                                          "--control-port",
                                          std::to_string(ports_[2])};
        const auto add = [&](const std::string& option, const std::string& value) {
            words.insert(words.end(), {option, value});
        };
        if (!options.symbols.empty()) {
            add("--symbols", options.symbols);
        }
        if (options.interval_ms != 0) {
            add("--interval-ms", std::to_string(options.interval_ms));
        }
        if (options.seed != 0) {
            add("--seed", std::to_string(options.seed));
        }
        words.insert(words.end(), options.options.begin(), options.options.end());
        std::vector<std::pair<std::string, std::string>> environment;
        if (!options.scenario.empty()) {
            environment.emplace_back("TESSEL_SCENARIO", options.scenario);
        }
        child_ = start(words, folder_ / "feed.log", environment);
        bool ended = false;
        const bool told = wait_until([&] {
            ended = ::waitpid(child_, nullptr, WNOHANG) != 0;
            return ended || log().find("[tessel] UQDF+UTDF ") != std::string::npos;
        });
        if (ended || !told) {
            if (!ended) {
                close();
            }
            child_ = 0;
            throw std::runtime_error("tessel did not start:\n" + log());
        }
    }

    std::filesystem::path folder_;
    std::string group_;
    std::uint16_t port_ = 0;
    std::uint16_t ports_[3] = {};  // retransmission, Snap-Shot, control
    pid_t child_ = 0;
    int status_ = 0;
};

struct Judgment {
    bool agrees = false;
    std::string text;  // the report of tessel-judge
};

// Compares a handler's output with the truth log. `options`: of tessel-judge, "--late" for one that joined
// late.
inline Judgment judge(const std::string& truth, const std::string& output,
                      const std::vector<std::string>& options = {}) {
    std::string name = (std::filesystem::temp_directory_path() / "tessel-judge-XXXXXX").string();
    const int file = ::mkstemp(name.data());
    if (file < 0) {
        throw std::runtime_error(name + ": " + std::strerror(errno));
    }
    ::close(file);
    std::vector<std::string> words = {program("tessel-judge"), truth, output};
    words.insert(words.end(), options.begin(), options.end());
    int status = 0;
    ::waitpid(start(words, name), &status, 0);
    Judgment judgment{WIFEXITED(status) && WEXITSTATUS(status) == 0, text_of(name)};
    std::filesystem::remove(name);
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) {
        throw std::runtime_error("tessel-judge could not judge:\n" + judgment.text);
    }
    return judgment;
}

}  // namespace tessel::testing
