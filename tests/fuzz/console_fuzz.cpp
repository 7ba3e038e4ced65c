// Any bytes on a connection to the console: each is answered by one reply of HTTP/1.1 with the security
// headers, no command gets through that is not a JSON object of the form asked for, and the same bytes are
// answered alike.
//
// The input is a request; "@" stands for the token.

#include "console/web_server.h"
#include "fuzz_check.h"

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <thread>

namespace {

using namespace tessel::console;
using tessel::fuzz::check;

constexpr const char* token = "abcdefghijklmnopabcdefghijklmnop";
constexpr std::size_t command_bytes_max = 511;

// A console with two instruments and a feed that answers everything with "ok".
struct Console {
    Board board;
    Site site;
    std::atomic<bool> stop{false};
    std::thread receiver;

    Console() {
        std::vector<Row> rows(2);
        rows[0].symbol = "AAPL";
        rows[1].symbol = "\"<\xff";
        Picture picture;
        picture.rows = std::make_shared<const std::vector<Row>>(std::move(rows));
        publish_picture(board, std::make_shared<const Picture>(std::move(picture)));
        site.rules.token = token;
        site.board = &board;
        site.send_command = [](CommandTarget, const std::string& command) {
            check(!command.empty() && command.size() <= command_bytes_max, "a command has its length");
            for (const char letter : command) {
                check(static_cast<unsigned char>(letter) >= 0x20 && letter != 0x7f,
                      "a command is plain text");
            }
            return CommandAnswer{true, true, "ok"};
        };
        receiver = std::thread([this] {
            while (!stop) {
                const auto requests = take_requests(board);
                for (const auto& request : requests) {
                    request->found = request->symbol == "AAPL";
                }
                if (!requests.empty()) {
                    finish_requests(board, requests);
                }
                std::this_thread::yield();
            }
        });
    }

    ~Console() {
        stop = true;
        receiver.join();
    }
};

std::string with_token(const unsigned char* data, std::size_t size) {
    std::string text;
    for (std::size_t at = 0; at < size; ++at) {
        if (data[at] == '@') {
            text += token;
        } else {
            text += static_cast<char>(data[at]);
        }
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, unsigned long size) {
    static Console console;
    const std::string request = with_token(data, size);
    const std::string reply = answer_bytes(console.site, request);
    check(console.site.streams == 0, "streams are counted out");
    if (reply.empty()) {
        return 0;  // no whole line
    }
    // Before a reply there may be the word to go on with a body.
    std::string_view text = reply;
    for (const std::string_view on : {"HTTP/1.1 100 Continue\r\n\r\n"}) {
        text.remove_prefix(text.starts_with(on) ? on.size() : 0);
    }
    check(text.starts_with("HTTP/1.1 "), "a reply has a status");
    const std::string_view head = text.substr(0, text.find("\r\n\r\n"));
    check(head.find("\r\nX-Content-Type-Options: nosniff") != std::string_view::npos, "headers are there");
    check(head.find("Access-Control") == std::string_view::npos, "no header lets other pages in");
    if (request.find(token) == std::string::npos) {
        check(!text.starts_with("HTTP/1.1 200") || head.find("text/plain") != std::string_view::npos,
              "without the token only the health is told");
    }
    return 0;
}
