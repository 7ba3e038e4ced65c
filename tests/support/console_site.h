#pragma once

#include "console/board.h"
#include "console/doors.h"
#include "console/market_book.h"
#include "support/test_market.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tessel::console::testing {

// A console without a network: its receiver is a thread that answers questions about a market in memory, its
// feed a function.
struct TestSite {
    Board board;
    Site site;
    MarketBook book;
    std::vector<std::string> commands;  // that reached the feed
    CommandAnswer answer{true, true, "ok done"};
    std::atomic<bool> stop{false};
    std::thread receiver;

    explicit TestSite(const tessel::testing::MarketOptions& options = {}, std::size_t ticks = 20) {
        tessel::testing::TestMarket market(options);
        market.start_of_day();
        market.run_ticks(ticks);
        std::vector<MarketEvent> events;
        for (std::uint64_t sequence = 1; sequence <= market.last(); ++sequence) {
            const tessel::testing::Bytes message = market.message(sequence);
            apply_to_book(book, message.data(), message.size(), sequence,
                          [&events](MarketEvent&& event) { events.push_back(std::move(event)); });
        }
        add_events(board, events);
        Picture picture;
        picture.up = true;
        picture.next_sequence = market.last() + 1;
        picture.receiver.messages = market.last();
        picture.rows = std::make_shared<const std::vector<Row>>(make_rows(book));
        publish_picture(board, std::make_shared<const Picture>(std::move(picture)));
        site.rules.token = "abcdefghijklmnopabcdefghijklmnop";
        site.board = &board;
        site.session = options.session;
        site.send_command = [this](CommandTarget target, const std::string& command) {
            commands.push_back((target == CommandTarget::relay ? "relay: " : "") + command);
            return answer;
        };
        receiver = std::thread([this] {
            while (!stop) {
                const auto requests = take_requests(board);
                for (const auto& request : requests) {
                    request->found = make_detail(book, request->symbol, request->detail);
                }
                finish_requests(board, requests);
                std::this_thread::yield();
            }
        });
    }

    ~TestSite() {
        stop = true;
        receiver.join();
    }

    TestSite(const TestSite&) = delete;
    TestSite& operator=(const TestSite&) = delete;

    Request request(const std::string& method, const std::string& path, QueryParameters query = {}) const {
        Request made;
        made.method = method;
        made.path = path;
        made.query = std::move(query);
        made.host = "127.0.0.1:8080";
        made.authorization = "Bearer " + site.rules.token;
        made.local_address = "127.0.0.1";
        return made;
    }

    // The whole way of a request.
    Reply ask(const Request& request) {
        if (std::optional<Reply> refusal = refuse(site, request)) {
            return *std::move(refusal);
        }
        return console::answer(site, request);
    }

    Reply command(const std::string& body) {
        Request made = request("POST", "/api/command");
        made.body = body;
        return ask(made);
    }
};

}  // namespace tessel::console::testing
