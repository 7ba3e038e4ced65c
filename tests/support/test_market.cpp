#include "support/test_market.h"

#include "engine/start_of_day.h"
#include "engine/tick.h"
#include "mold/message_history.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

// The sanitizers' own way to send their reports elsewhere; absent from a build without them.
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void* descriptor);

namespace tessel::testing {

namespace {

void keep_packet(void* context, const unsigned char* packet, std::size_t length) {
    static_cast<TestMarket*>(context)->packets.emplace_back(packet, packet + length);
}

std::string read_descriptor(int fd, std::size_t from) {
    struct stat status {};
    if (fstat(fd, &status) != 0 || static_cast<std::size_t>(status.st_size) <= from) {
        return {};
    }
    std::string text(static_cast<std::size_t>(status.st_size) - from, '\0');
    const ssize_t got = pread(fd, text.data(), text.size(), static_cast<off_t>(from));
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

}  // namespace

TestMarket::TestMarket(const MarketOptions& options) {
    clock.simulated = true;
    clock.simulated_wall_ns = 1'700'000'000'000'000'000u;
    clock.wall_step_ns = options.wall_step_ns;
    clock.simulated_steady_ms = 1'000'000;
    seed_random(rng, options.seed);
    reset_publisher(publisher, clock, options.session);
    publisher.sink = {keep_packet, this};
    scenario = parse_scenario(options.scenario);
    init_engine(engine, publisher, rng, scenario, clock, options.participants, options.step_bps,
                options.quiet);
    if (options.truth) {
        engine.truth.fd = memfd_create("truth", MFD_CLOEXEC);
        engine.truth.enabled = engine.truth.fd >= 0;
    }
    std::string error;
    if (!add_instruments(engine, options.symbols, error)) {
        throw std::runtime_error("--symbols: " + error);
    }
}

TestMarket::~TestMarket() {
    close_truth_log(engine.truth);
}

void TestMarket::start_of_day() {
    tessel::start_of_day(engine);
}

void TestMarket::advance_ms(std::uint64_t ms) {
    clock.simulated_steady_ms += ms;
    clock.simulated_wall_ns += ms * 1'000'000u;
}

void TestMarket::run_ticks(std::size_t count, std::uint64_t interval_ms) {
    for (std::size_t done = 0; done < count; ++done) {
        advance_ms(interval_ms);
        run_tick(engine, clock.simulated_steady_ms);
    }
}

Bytes TestMarket::message(std::uint64_t sequence) const {
    const RetransStore& store = publisher.history;
    if (sequence == 0 || sequence - 1 < store.first_index || sequence - 1 >= store.end_index) {
        throw std::out_of_range("message " + std::to_string(sequence) + " is not kept");
    }
    RetransCursor cursor = find_message(store, sequence - 1);
    Bytes block(2 + 65535);
    std::size_t bytes = 0;
    copy_blocks(store, cursor, sequence, 1, block.data(), block.size(), bytes);
    return {block.begin() + 2, block.begin() + static_cast<std::ptrdiff_t>(bytes)};
}

std::vector<Bytes> TestMarket::messages(std::uint64_t first, std::uint64_t last) const {
    std::vector<Bytes> result;
    for (std::uint64_t sequence = first; sequence <= last; ++sequence) {
        result.push_back(message(sequence));
    }
    return result;
}

std::vector<std::string> TestMarket::letters_of(std::uint64_t first, std::uint64_t last) const {
    std::vector<std::string> result;
    for (std::uint64_t sequence = first; sequence <= last; ++sequence) {
        result.push_back(letters(message(sequence)));
    }
    return result;
}

std::string TestMarket::truth_text() const {
    return read_descriptor(engine.truth.fd, 0);
}

std::vector<std::string> TestMarket::truth_lines() const {
    std::vector<std::string> lines;
    std::istringstream text(truth_text());
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string letters(const Bytes& message) {
    return get_text(message, 1, 4);
}

std::uint16_t get_u16(const Bytes& message, std::size_t offset) {
    return static_cast<std::uint16_t>(message.at(offset) << 8 | message.at(offset + 1));
}

std::uint32_t get_u32(const Bytes& message, std::size_t offset) {
    return static_cast<std::uint32_t>(get_u16(message, offset)) << 16 | get_u16(message, offset + 2);
}

std::uint64_t get_u64(const Bytes& message, std::size_t offset) {
    return static_cast<std::uint64_t>(get_u32(message, offset)) << 32 | get_u32(message, offset + 4);
}

std::string get_text(const Bytes& message, std::size_t offset, std::size_t width) {
    std::string text;
    for (std::size_t at = offset; at < offset + width; ++at) {
        text += static_cast<char>(message.at(at));
    }
    return text;
}

std::vector<Bytes> packet_messages(const Bytes& packet) {
    std::vector<Bytes> result;
    std::size_t at = mold_header_bytes;
    for (std::uint16_t count = get_u16(packet, 18); count > 0; --count) {
        const std::size_t length = get_u16(packet, at);
        const auto start = packet.begin() + static_cast<std::ptrdiff_t>(at + 2);
        result.emplace_back(start, start + static_cast<std::ptrdiff_t>(length));
        at += 2 + length;
    }
    return result;
}

StderrCapture::StderrCapture() {
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    file_ = memfd_create("stderr", MFD_CLOEXEC);
    dup2(file_, STDERR_FILENO);
    // A report that ends the process must not end in the capture.
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(saved_)));
    }
}

StderrCapture::~StderrCapture() {
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    if (__sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void*>(std::intptr_t{STDERR_FILENO}));
    }
    close(saved_);
    close(file_);
}

std::string StderrCapture::take() {
    std::fflush(stderr);
    std::string text = read_descriptor(file_, taken_);
    taken_ += text.size();
    return text;
}

TempFolder::TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "tessel-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    folder_ = name;
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

std::string TempFolder::path(std::string_view name) const {
    return folder_ + "/" + std::string(name);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace tessel::testing
