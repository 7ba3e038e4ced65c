// Decodes messages from a file, one a line, and prints each as JSON: decode_file FILE
//
//     decode_file vectors/quote_short.jsonl
//
// A line is hexadecimal text, or an object with such text in its member "hex".
#include <tessel/wire/message_decoder.h>
#include <tessel/wire/message_json.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

using namespace tessel::receiver;

namespace {

constexpr std::string_view member = "\"hex\":\"";

// The bytes of a line; false when it holds no hexadecimal text.
bool parse_line(std::string line, std::vector<unsigned char>& bytes) {
    bytes.clear();
    if (const std::size_t at = line.find(member); at != std::string::npos) {
        line.erase(0, at + member.size());
        line.resize(std::min(line.find('"'), line.size()));
    }
    if (line.size() % 2 != 0 || line.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    for (std::size_t at = 0; at < line.size(); at += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(line.substr(at, 2), nullptr, 16)));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: decode_file FILE\n");
        return 2;
    }
    std::ifstream file(argv[1]);
    if (!file) {
        std::fprintf(stderr, "decode_file: cannot read %s\n", argv[1]);
        return 2;
    }
    std::vector<unsigned char> bytes;
    Message message;
    std::uint64_t number = 0;
    int status = 0;
    for (std::string line; std::getline(file, line);) {
        std::string error = "not hexadecimal";
        ++number;
        if (parse_line(line, bytes) && decode_message(message, bytes.data(), bytes.size(), &error)) {
            std::string json;
            tessel::layout::append_message_json(json, bytes.data(), bytes.size(), number);
            std::fputs(json.c_str(), stdout);
        } else {
            std::fprintf(stderr, "decode_file: %s:%llu: %s\n", argv[1],
                         static_cast<unsigned long long>(number), error.c_str());
            status = 1;
        }
    }
    return status;
}
