#include "certify/message_bytes.h"

#include "certify/time_limits.h"
#include "mold/packet.h"
#include "mold/sequencer.h"
#include "receiver/sockets.h"
#include "wire/message_decoder.h"
#include "wire/message_json.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <array>

namespace tessel::certify {

namespace {

constexpr int buffer_bytes = 4 << 20;
constexpr std::size_t requests_a_batch = 32;  // their replies fit into any socket buffer
constexpr double reply_seconds = 0.5;
constexpr std::size_t reply_bytes_max = 65'536;

struct KindName {
    receiver::MessageKind kind;
    std::string_view name;
};

// The headings of docs/messages.md.
constexpr std::array<KindName, 22> kind_names = {{
    {receiver::MessageKind::start_of_day, "start of day"},
    {receiver::MessageKind::session_open, "session open"},
    {receiver::MessageKind::wipe_out, "quote wipe-out"},
    {receiver::MessageKind::decline_levels, "circuit breaker decline levels"},
    {receiver::MessageKind::directory_short, "short issue symbol directory"},
    {receiver::MessageKind::directory_long, "long issue symbol directory"},
    {receiver::MessageKind::indicator, "instrument indicator"},
    {receiver::MessageKind::trading_action, "trading action"},
    {receiver::MessageKind::price_band, "LULD price band"},
    {receiver::MessageKind::collar, "LULD auction collar"},
    {receiver::MessageKind::mwcb_status, "circuit breaker status"},
    {receiver::MessageKind::end_of_snapshot, "end of snapshot"},
    {receiver::MessageKind::odd_lots_short, "short odd-lot update"},
    {receiver::MessageKind::odd_lots_long, "long odd-lot update"},
    {receiver::MessageKind::quote_short, "short quote"},
    {receiver::MessageKind::quote_long, "long quote"},
    {receiver::MessageKind::mpid_quote, "MPID quote"},
    {receiver::MessageKind::trade_short, "short trade report"},
    {receiver::MessageKind::trade_long, "long trade report"},
    {receiver::MessageKind::cancel_error, "trade cancel or error"},
    {receiver::MessageKind::correction, "trade correction"},
    {receiver::MessageKind::as_of, "as-of trade"},
}};

std::string_view name_of(receiver::MessageKind kind) {
    for (const KindName& each : kind_names) {
        if (each.kind == kind) {
            return each.name;
        }
    }
    return "";
}

// Letters and codes, which have few values; prices, sizes, times and names of instruments say nothing about a
// cause.
bool is_fact(const std::string& name, const std::string& value) {
    return (value.size() == 1 && name != "version") || name == "reason" || name == "conditions";
}

void add_facts(SentMessage& message) {
    const auto json = nlohmann::ordered_json::parse(message.decoded, nullptr, false);
    if (!json.is_object()) {
        return;
    }
    for (const auto& [name, value] : json.items()) {
        if (value.is_string() && is_fact(name, value.get<std::string>())) {
            message.facts.emplace_back(name, value.get<std::string>());
        }
    }
}

void send_requests(int fd, const std::string& session, const std::vector<std::uint64_t>& numbers,
                   std::size_t begin, std::size_t end) {
    for (std::size_t at = begin; at != end; ++at) {
        std::array<unsigned char, mold_header_bytes> request{};
        put_mold_header(request.data(), session.data(), numbers[at], 1);
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
            return;  // the feed is gone, and no reply will come
        }
    }
}

// Takes replies until all of a batch are there or none has come for a while.
void take_replies(int fd, const std::string& session, std::size_t wanted,
                  std::map<std::uint64_t, SentMessage>& messages) {
    std::vector<unsigned char> bytes(reply_bytes_max);
    double until = steady_seconds() + scaled(reply_seconds);
    while (messages.size() < wanted && steady_seconds() < until) {
        constexpr int wait_ms = 20;
        pollfd waited{fd, POLLIN, 0};
        poll(&waited, 1, wait_ms);
        ssize_t length = 0;
        while ((length = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0) {
            take_reply(session, bytes.data(), static_cast<std::size_t>(length), messages);
            until = steady_seconds() + scaled(reply_seconds);
        }
    }
}

}  // namespace

SentMessage describe_message(const unsigned char* bytes, std::size_t length, std::uint64_t number) {
    SentMessage sent;
    for (std::size_t at = 0; at != length; ++at) {
        sent.hex += fmt::format("{:02x}", bytes[at]);
    }
    receiver::Message message;
    std::string error;
    if (receiver::decode_message(message, bytes, length, &error)) {
        layout::append_message_json(sent.decoded, bytes, length, number);
        sent.name = name_of(message.kind);
        add_facts(sent);
    } else {
        layout::append_undecoded_json(sent.decoded, bytes, length, number, error);
    }
    sent.decoded.resize(sent.decoded.find_last_not_of('\n') + 1);
    return sent;
}

void take_reply(const std::string& session, const unsigned char* bytes, std::size_t length,
                std::map<std::uint64_t, SentMessage>& messages) {
    if (length < mold_header_bytes || !std::equal(session.begin(), session.end(), bytes)) {
        return;
    }
    std::uint64_t number = mold_sequence(bytes);
    std::size_t count = mold_count(bytes);
    std::size_t at = mold_header_bytes;
    for (; count != 0 && at + block_prefix_bytes <= length; --count, ++number) {
        const auto block = static_cast<std::size_t>(read_big_endian(bytes + at, block_prefix_bytes));
        at += block_prefix_bytes;
        if (block > length - at) {
            return;
        }
        messages.emplace(number, describe_message(bytes + at, block, number));
        at += block;
    }
}

std::map<std::uint64_t, SentMessage> fetch_messages(const Endpoints& feed,
                                                    const std::vector<std::uint64_t>& numbers) {
    std::map<std::uint64_t, SentMessage> messages;
    sockaddr_in server{};
    std::string error;
    if (!receiver::parse_endpoint(server, feed.retrans, error)) {
        return messages;
    }
    const int fd = receiver::open_retransmission(server, buffer_bytes, error);
    if (fd < 0) {
        return messages;
    }
    const std::string session = receiver::padded_session(feed.session);
    for (std::size_t begin = 0; begin < numbers.size(); begin += requests_a_batch) {
        const std::size_t end = std::min(begin + requests_a_batch, numbers.size());
        const std::size_t before = messages.size();
        send_requests(fd, session, numbers, begin, end);
        take_replies(fd, session, before + end - begin, messages);
        if (messages.size() == before) {
            break;  // nobody answers
        }
    }
    close(fd);
    return messages;
}

}  // namespace tessel::certify
