// A line of a truth log or of a handler's output, whatever its bytes: the judge's reader takes it or gives a
// reason, and its two ways of reading never see different values.

#include "judge/line_reader.h"
#include "judge/value.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace tessel::judge;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Line line;
    std::string error;
    if (read_line(text, line, error) != error.empty()) {
        std::abort();
    }
    std::uint64_t seq = 0;
    if (error.empty() && peek_sequence(text, seq) && seq != line.seq) {
        std::abort();
    }
    // A line after a torn one is a line by itself.
    const std::size_t torn = find_line_after_torn(text);
    if (torn != 0 && (torn >= size || !read_line(text.substr(torn), line, error))) {
        std::abort();
    }
    Line quick;
    Line full;
    // What only one of the two takes is no contradiction: the quick way leaves odd lines to the other one,
    // which refuses numbers beyond a double.
    if (read_line_quickly(text, quick) && read_line_fully(text, full, error)) {
        for (std::size_t member = 0; member != member_count; ++member) {
            const std::string_view one = member_text(quick, text, member);
            const std::string_view other = member_text(full, text, member);
            if (quick.seq != full.seq || one.empty() != other.empty()) {
                std::abort();
            }
            same_value(member, one, other);
            same_value(member, other, one);
        }
    }
    return 0;
}
