#include "support/feed_follower.h"

#include "receiver/truth_line.h"

#include <algorithm>
#include <array>

namespace tessel::testing {

namespace {

constexpr std::size_t wire_symbol_letters = 11;

using receiver::MessageKind;

bool is_quote(MessageKind kind) {
    return kind == MessageKind::quote_short || kind == MessageKind::quote_long;
}

bool tells_book(MessageKind kind) {
    return is_quote(kind) || kind == MessageKind::trading_action || kind == MessageKind::price_band;
}

// The position of the message's instrument in the market; -1 when it has none.
std::ptrdiff_t position_of(const FeedFollower& follower, std::string_view symbol) {
    const receiver::Instrument* instrument = receiver::find_instrument(follower.market, symbol);
    return instrument == nullptr ? -1 : instrument - follower.market.instruments.data();
}

PlainNbbo told_nbbo(const receiver::Nbbo& nbbo) {
    return {nbbo.bid, nbbo.ask, nbbo.bid_size, nbbo.ask_size, nbbo.bid_center, nbbo.ask_center};
}

// Puts the letters back that a long symbol lost on the wire.
void restore_symbol(FeedFollower& follower, std::size_t position) {
    const std::string& whole = follower.symbols.at(position);
    if (whole.size() <= wire_symbol_letters) {
        return;
    }
    const std::string cut = "\"symbol\":\"" + whole.substr(0, wire_symbol_letters) + '"';
    const std::size_t at = follower.line.find(cut);
    if (at != std::string::npos) {
        follower.line.replace(at, cut.size(), "\"symbol\":\"" + whole + '"');
    }
}

std::string describe(const char* what, std::string_view expected, std::string_view got) {
    return std::string(what) + "\n  expected " + std::string(expected) + "\n  got      " + std::string(got);
}

}  // namespace

bool next_line(TruthReader& reader, std::string_view& line) {
    if (reader.at >= reader.text.size()) {
        return false;
    }
    const std::size_t end = std::min(reader.text.find('\n', reader.at), reader.text.size());
    line = reader.text.substr(reader.at, end - reader.at);
    reader.at = end + 1;
    return true;
}

bool is_mark(std::string_view line) {
    return line.starts_with("{\"mark\":");
}

FeedFollower make_follower(const std::string& symbols_text) {
    FeedFollower follower;
    for (std::size_t at = 0; at < symbols_text.size();) {
        const std::size_t end = std::min(symbols_text.find(',', at), symbols_text.size());
        const std::string item = symbols_text.substr(at, end - at);
        follower.symbols.push_back(item.substr(0, item.find(':')));
        at = end + 1;
    }
    return follower;
}

std::string follow(FeedFollower& follower, std::uint64_t sequence, const unsigned char* bytes,
                   std::size_t length) {
    follower.line.clear();
    receiver::Market& market = follower.market;
    const std::uint64_t undecoded = market.undecoded;
    receiver::apply_message(market, bytes, length, sequence);
    if (market.undecoded != undecoded) {
        return "does not decode: " + market.last_error;
    }
    const receiver::Message& message = market.message;
    follower.books.resize(market.instruments.size());
    receiver::append_truth_line(follower.line, market, message, sequence);
    const std::ptrdiff_t position = position_of(follower, message.symbol);
    if (position < 0 || message.kind == MessageKind::mwcb_status) {
        return {};
    }
    restore_symbol(follower, static_cast<std::size_t>(position));
    PlainBook& book = follower.books[static_cast<std::size_t>(position)];
    if (message.kind == MessageKind::price_band) {
        take_band(book, message);
    } else if (is_quote(message.kind)) {
        take_quote(book, message);
        if (!(told_nbbo(market.instruments[static_cast<std::size_t>(position)].nbbo) == book.nbbo)) {
            return "the NBBO reported is not the recomputed one, " + book_text(book) + " with centers " +
                   book.nbbo.bid_center + book.nbbo.ask_center;
        }
    }
    return {};
}

std::string line_difference(const FeedFollower& follower, std::string_view feed_line) {
    const receiver::Message& message = follower.market.message;
    const std::string_view rebuilt(follower.line.data(), follower.line.size() - 1);
    if (message.kind == MessageKind::mwcb_status) {
        // The log has the level as it was given, the message a digit of at most 3.
        const std::string_view head = rebuilt.substr(0, rebuilt.size() - 2);
        const std::string_view level =
            feed_line.starts_with(head) ? feed_line.substr(head.size()) : std::string_view();
        const bool high = level.size() > 2 || (level.size() == 2 && level[0] > '3');
        const bool equal = !level.empty() && level.back() == '}' &&
                           (high ? message.mwcb_level == '3' : level[0] == message.mwcb_level);
        return equal ? std::string() : describe("breaker line", rebuilt, feed_line);
    }
    if (feed_line != rebuilt) {
        return describe("the line rebuilt from the messages", rebuilt, feed_line);
    }
    if (tells_book(message.kind)) {
        const std::ptrdiff_t position = position_of(follower, message.symbol);
        const std::string text = book_text(follower.books.at(static_cast<std::size_t>(position)));
        if (feed_line.find(text) == std::string_view::npos) {
            return describe("the book recomputed from the quotes", text, feed_line);
        }
    }
    return {};
}

void read_history(const RetransStore& store, std::uint64_t first,
                  std::vector<std::vector<unsigned char>>& out) {
    if (first - 1 >= store.end_index) {
        return;
    }
    RetransCursor cursor = find_message(store, first - 1);
    std::array<unsigned char, 2 + 1500> block;
    for (std::uint64_t index = first - 1; index < store.end_index; ++index) {
        std::size_t bytes = 0;
        copy_blocks(store, cursor, store.end_index, 1, block.data(), block.size(), bytes);
        out.emplace_back(block.begin() + 2, block.begin() + static_cast<std::ptrdiff_t>(bytes));
    }
}

}  // namespace tessel::testing
