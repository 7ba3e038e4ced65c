#include "ctl/account.h"

#include "ctl/json_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tessel::ctl {

namespace {

// Takes the next line off the front.
std::string_view take_line(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// The number at the front of text, which must be followed by `after`; commas among the digits are passed
// over. -1 otherwise.
std::int64_t number_before(std::string_view text, std::string_view after) {
    constexpr std::size_t digits_max = 18;
    std::string digits;
    std::size_t at = 0;
    while (at < text.size() && (text[at] == ',' || (text[at] >= '0' && text[at] <= '9'))) {
        digits += text[at] == ',' ? "" : std::string(1, text[at]);
        ++at;
    }
    if (digits.empty() || digits.size() > digits_max || !text.substr(at).starts_with(after)) {
        return -1;
    }
    return std::stoll(digits);
}

}  // namespace

Account make_account(const FeedCounters& stats, std::int64_t damaged_messages, std::int64_t received) {
    Account account;
    account.sent = static_cast<std::int64_t>(stats.next_sequence) - 1;
    account.received = received;
    account.damaged = damaged_messages;
    if (damaged_messages < 0) {
        // Each packet made was either sent or dropped; one sent twice counts once among those sent.
        const double packets = static_cast<double>(stats.sent) + static_cast<double>(stats.dropped);
        const double share = packets == 0 ? 0 : static_cast<double>(stats.dropped) / packets;
        account.damaged = std::llround(share * static_cast<double>(account.sent));
        account.damage_exact = stats.dropped == 0;
    }
    // What a receiver asked for again and got was damaged and received; it is not lost.
    account.lost = std::max<std::int64_t>(0, account.sent - account.damaged - account.received);
    return account;
}

std::string account_text(const Account& account) {
    return "sent " + std::to_string(account.sent) + ", damaged on purpose " +
           std::to_string(account.damaged) + ", received " + std::to_string(account.received) +
           ", lost on the way " + std::to_string(account.lost);
}

std::int64_t received_of_summary(std::string_view text) {
    std::int64_t received = -1;
    std::int64_t number = 0;
    if (read_json_number(text, "messages", number)) {
        return number;
    }
    while (!text.empty()) {
        const std::string_view line = take_line(text);
        constexpr std::string_view prefix = "tessel-listen: ";
        std::string_view rest = line;
        if (read_json_number(line, "messages", number)) {
            received = number;
        } else if (rest.starts_with(prefix)) {
            rest.remove_prefix(prefix.size());
            const std::int64_t found = number_before(rest, " messages (");
            received = found < 0 ? received : found;  // the last summary of the file counts
        }
    }
    return received;
}

std::int64_t damaged_of_log(std::string_view text) {
    std::int64_t damaged = 0;
    while (!text.empty()) {
        const std::string_view line = take_line(text);
        constexpr std::string_view mark = "tessel fault: dropped seq ";
        const std::size_t start = line.find(mark);
        const std::size_t comma =
            start == std::string_view::npos ? start : line.find(", ", start + mark.size());
        if (comma != std::string_view::npos) {
            damaged += std::max<std::int64_t>(0, number_before(line.substr(comma + 2), " message"));
        }
    }
    return damaged;
}

}  // namespace tessel::ctl
