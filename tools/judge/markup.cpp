#include "judge/markup.h"

#include <cstdint>

namespace tessel::judge {

namespace {

// The length of the UTF-8 sequence at the start of `text` whose character XML allows, 0 when there is none.
std::size_t sequence_bytes(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t size = lead < 0x80 ? 1 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 0;
    if (size == 0 || size > text.size()) {
        return 0;
    }
    std::uint32_t letter = size == 1 ? lead : lead & (0x7fU >> size);
    for (std::size_t index = 1; index != size; ++index) {
        const auto byte = static_cast<unsigned char>(text[index]);
        if ((byte & 0xc0) != 0x80) {
            return 0;
        }
        letter = letter << 6 | (byte & 0x3fU);
    }
    const bool shortest = size == 1 || letter >= (size == 2 ? 0x80U : size == 3 ? 0x800U : 0x10000U);
    const bool allowed = letter <= 0x10ffff && (letter < 0xd800 || letter > 0xdfff) && letter != 0xfffe &&
                         letter != 0xffff && letter != 0x7f;
    return shortest && allowed ? size : 0;
}

}  // namespace

std::string escaped_markup(std::string_view text) {
    std::string safe;
    safe.reserve(text.size());
    while (!text.empty()) {
        const std::size_t size = sequence_bytes(text);
        const char c = text.front();
        switch (c) {
            case '&': safe += "&amp;"; break;
            case '<': safe += "&lt;"; break;
            case '>': safe += "&gt;"; break;
            case '"': safe += "&quot;"; break;
            case '\'': safe += "&#39;"; break;
            default:
                if (size == 0) {
                    safe += '?';
                } else if (size == 1 && static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') {
                    safe += ' ';
                } else {
                    safe += text.substr(0, size);
                }
        }
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return safe;
}

}  // namespace tessel::judge
