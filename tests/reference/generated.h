#pragma once

#include "wire/layout.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What is made from the layout table for people and for other programs, and checked in: the message
// reference, the test vectors and a part of the dissector.
namespace tessel::reference {

struct GeneratedFile {
    std::string path;  // from the root of the tree
    std::string text;
};

// The dissector whose present text is `lua`, with its generated part made anew. Throws when its marks are
// missing.
GeneratedFile make_dissector(const std::string& lua);

// docs/messages.md.
GeneratedFile make_messages_page();

// vectors/KIND.jsonl, one for each kind of message.
std::vector<GeneratedFile> make_vectors();

// One message of a kind as a market sends it, and its line in the truth log, empty when it has none.
struct Sample {
    const layout::Message* layout = nullptr;
    std::string message;
    std::string truth_line;
};

// One of each kind, in the order of the table: those that the golden run has are taken from it. The markets
// are in memory with a simulated clock, so the bytes are the same each time.
std::vector<Sample> make_samples();

// The message as tessel-listen --decode writes it, without its sequence number.
std::string json_of(const std::string& message);

std::string hex_of(const std::string& bytes);

// The name of a field where no objects nest: "nbbo_bid".
inline std::string flat_name(const layout::Block& block, const layout::Field& field) {
    return std::string(block.prefix) + std::string(field.name);
}

}  // namespace tessel::reference
