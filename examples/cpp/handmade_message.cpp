// Makes a quote by hand, as a handler's unit test needs it, and prints its bytes and what they decode to.
#include <tessel/wire/message_json.h>
#include <tessel/wire/quote_messages.h>

#include <cstdio>
#include <string>

int main() {
    tessel::QuoteRecord quote;
    quote.header.market_center = 'Q';
    quote.symbol = "AAPL";
    quote.bid = 189'970'000;  // millionths of a dollar
    quote.bid_size = 100;
    quote.ask = 190'030'000;
    quote.ask_size = 800;
    quote.condition = 'R';
    tessel::MessageWriter message;
    build_quote(message, quote, 'C');  // the short form

    for (std::size_t at = 0; at < message.size; ++at) {
        std::printf("%02x", message.bytes[at]);
    }
    std::string json;
    tessel::layout::append_message_json(json, message.bytes.get(), message.size, 1);
    std::printf("\n%s", json.c_str());
}
