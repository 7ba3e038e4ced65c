// Any command line, one argument a line: it is taken or refused with a reason, its numbers are read as the
// standard library reads them, and a market that starts from what was taken makes only messages that decode.

#include "app/config.h"
#include "base/parse_number.h"
#include "fuzz_check.h"
#include "support/feed_follower.h"
#include "support/test_market.h"
#include "wire/message_decoder.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tessel::fuzz::check;

constexpr std::size_t symbols_text_max = 200;
constexpr std::size_t participants_max = 60;
constexpr std::size_t ticks = 5;

// Holds one conversion against the standard library's function of its name: value, failure and reason.
template <typename Value, typename Ours, typename Theirs>
void compare(const std::string& text, Ours ours, Theirs theirs, const std::string& name) {
    Value value{};
    std::string error;
    errno = 4711;
    const bool good = ours(text, value, error);
    check(!good || errno == 4711, name + ": errno is left as it was");
    try {
        const Value expected = theirs(text);
        check(good && error.empty(), name + " refuses what can be read");
        check(value == expected || (value != value && expected != expected), name + " reads another value");
    } catch (const std::invalid_argument&) {
        check(!good && error == name + ": not a number: '" + text + "'", name + ": " + error);
    } catch (const std::out_of_range&) {
        check(!good && error == name + ": out of range: '" + text + "'", name + ": " + error);
    }
}

void read_numbers(const std::string& text) {
    using namespace tessel;
    compare<std::int32_t>(
        text, to_stoi, [](const std::string& each) { return std::stoi(each); }, "stoi");
    compare<std::uint64_t>(
        text, to_stoul, [](const std::string& each) { return std::stoul(each); }, "stoul");
    compare<std::uint64_t>(
        text, to_stoull, [](const std::string& each) { return std::stoull(each); }, "stoull");
    compare<double>(
        text, to_stod, [](const std::string& each) { return std::stod(each); }, "stod");
    std::uint32_t expected = 4712;
    try {
        expected = static_cast<std::uint32_t>(std::stoul(text));
    } catch (const std::logic_error&) {}
    check(parse_count(text, 4712) == expected, "parse_count");
}

// A few ticks of the market that the options ask for.
void run_market(const tessel::FeedConfig& config) {
    using namespace tessel;
    testing::MarketOptions options;
    options.symbols = config.symbols;
    options.participants = config.participants;
    options.step_bps = config.step_bps;
    options.seed = config.seed;
    options.session = config.session;
    options.quiet = config.quiet;
    options.truth = false;
    try {
        testing::TestMarket market(options);
        market.start_of_day();
        market.run_ticks(ticks);
        std::vector<testing::Bytes> messages;
        testing::read_history(market.publisher.history, 1, messages);
        check(messages.size() == market.last(), "every message is kept");
        receiver::Message decoded;
        std::string error;
        for (const testing::Bytes& message : messages) {
            check(receiver::decode_message(decoded, message.data(), message.size(), &error), error);
        }
    } catch (const std::runtime_error&) {
        // A price that cannot be read.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace tessel;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> words;
    while (!text.empty()) {
        words.push_back(fuzz::take_piece(text, '\n'));
        read_numbers(words.back());
    }
    std::vector<const char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(word.c_str());
    }
    FeedConfig config;
    std::string error;
    const bool taken =
        parse_command_line(static_cast<int>(arguments.size()), arguments.data(), config, error);
    check(taken == error.empty(), "a reason, if and only if it is refused");
    check(taken || error.ends_with('\n'), "a reason is a whole line");
    if (!taken) {
        return 0;
    }
    check(config.session.size() <= 10, "the session fits the wire");
    std::uint64_t start = 0;
    std::uint32_t length = 0;
    const bool split = split_drop_burst(config.drop_burst, start, length, error);
    check(split ? error.empty() : error.starts_with("tessel: --drop-burst: sto"), error);
    if (split && config.symbols.size() <= symbols_text_max &&
        config.participants.size() <= participants_max) {
        run_market(config);
    }
    return 0;
}
