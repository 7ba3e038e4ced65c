#include "base/parse_number.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace tessel {

namespace {

enum class Outcome { good, not_a_number, out_of_range };

// Runs one of the C library's conversions with a separate errno, so that the caller's survives a success.
template <typename Value, typename Convert>
Outcome convert_text(const std::string& text, Value& value, Convert convert) {
    const int saved = errno;
    errno = 0;
    char* end = nullptr;
    value = convert(text.c_str(), &end);
    if (end == text.c_str()) {
        return Outcome::not_a_number;
    }
    if (errno == ERANGE) {
        return Outcome::out_of_range;
    }
    errno = saved;
    return Outcome::good;
}

Outcome convert_unsigned(const std::string& text, std::uint64_t& value) {
    static_assert(sizeof(unsigned long) == sizeof(std::uint64_t));
    return convert_text(text, value, [](const char* start, char** end) -> std::uint64_t {
        return std::strtoul(start, end, 10);
    });
}

// Returns true on success, otherwise sets the error.
bool accept(Outcome outcome, const char* function, const std::string& text, std::string& error) {
    if (outcome == Outcome::good) {
        return true;
    }
    const char* reason = outcome == Outcome::not_a_number ? ": not a number: '" : ": out of range: '";
    error = std::string(function) + reason + text + "'";
    return false;
}

}  // namespace

bool to_stoi(const std::string& text, std::int32_t& value, std::string& error) {
    long wide = 0;
    Outcome outcome =
        convert_text(text, wide, [](const char* start, char** end) { return std::strtol(start, end, 10); });
    using Limits = std::numeric_limits<std::int32_t>;
    if (outcome == Outcome::good && (wide < Limits::min() || wide > Limits::max())) {
        outcome = Outcome::out_of_range;
    }
    if (!accept(outcome, "stoi", text, error)) {
        return false;
    }
    value = static_cast<std::int32_t>(wide);
    return true;
}

bool to_stoul(const std::string& text, std::uint64_t& value, std::string& error) {
    std::uint64_t read = 0;
    if (!accept(convert_unsigned(text, read), "stoul", text, error)) {
        return false;
    }
    value = read;
    return true;
}

bool to_stoull(const std::string& text, std::uint64_t& value, std::string& error) {
    std::uint64_t read = 0;
    if (!accept(convert_unsigned(text, read), "stoull", text, error)) {
        return false;
    }
    value = read;
    return true;
}

bool to_stod(const std::string& text, double& value, std::string& error) {
    double read = 0;
    const Outcome outcome =
        convert_text(text, read, [](const char* start, char** end) { return std::strtod(start, end); });
    if (!accept(outcome, "stod", text, error)) {
        return false;
    }
    value = read;
    return true;
}

std::uint32_t parse_count(const std::string& text, std::uint32_t fallback) {
    const int saved = errno;
    std::uint64_t read = 0;
    const Outcome outcome = convert_unsigned(text, read);
    errno = saved;
    return outcome == Outcome::good ? static_cast<std::uint32_t>(read) : fallback;
}

}  // namespace tessel
