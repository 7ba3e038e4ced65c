#pragma once

#include "certify/traffic.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The messages that differing lines belong to, from the feed's retransmission service.
namespace tessel::certify {

struct SentMessage {
    std::string hex;
    std::string decoded;  // one JSON object, as `tessel-listen --decode` writes it
    std::string name;     // as docs/messages.md calls it, "short quote"; "" when it cannot be decoded
    std::vector<std::pair<std::string, std::string>> facts;  // indicators, codes and letters by name
};

// Asks for those messages; the ones that the service still has are in the answer by number. Waits for
// replies, half a second at most after the last.
std::map<std::uint64_t, SentMessage> fetch_messages(const Endpoints& feed,
                                                    const std::vector<std::uint64_t>& numbers);

// What the bytes of a message say.
SentMessage describe_message(const unsigned char* bytes, std::size_t length, std::uint64_t number);

// Enters the messages of a reply; bytes that are no packet of the session are passed over.
void take_reply(const std::string& session, const unsigned char* bytes, std::size_t length,
                std::map<std::uint64_t, SentMessage>& messages);

}  // namespace tessel::certify
