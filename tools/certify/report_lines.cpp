#include "certify/report_lines.h"

#include "judge/markup.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace tessel::certify {

namespace {

using judge::escaped_markup;

constexpr std::size_t bytes_a_row = 16;
constexpr std::size_t hex_bytes_max = 2'048;  // longer than any packet's message
constexpr std::size_t fields_max = 200;

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::size_t skip_blanks(std::string_view text, std::size_t at) {
    while (at < text.size() && is_blank(text[at])) {
        ++at;
    }
    return at;
}

// After the closing quote of the string that begins at `at`; the end of the text when it is cut.
std::size_t string_end(std::string_view text, std::size_t at) {
    for (++at; at < text.size(); ++at) {
        if (text[at] == '\\') {
            ++at;
        } else if (text[at] == '"') {
            return at + 1;
        }
    }
    return text.size();
}

// After the value that begins at `at`, blanks after it left out.
std::size_t value_end(std::string_view text, std::size_t at) {
    std::size_t depth = 0;
    std::size_t end = at;
    while (at < text.size()) {
        const char c = text[at];
        if (c == '"') {
            at = string_end(text, at);
            end = at;
            continue;
        }
        if (depth == 0 && (c == ',' || c == '}' || c == ']')) {
            return end;
        }
        if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            --depth;
        }
        ++at;
        end = is_blank(c) ? end : at;
    }
    return end;
}

bool is_listed(std::string_view members, std::string_view name) {
    while (!members.empty()) {
        const std::size_t comma = std::min(members.find(','), members.size());
        std::string_view one = members.substr(0, comma);
        while (!one.empty() && one.front() == ' ') {
            one.remove_prefix(1);
        }
        if (one == name) {
            return true;
        }
        members.remove_prefix(std::min(comma + 1, members.size()));
    }
    return false;
}

int digit_of(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

}  // namespace

std::vector<MemberSpan> member_spans(std::string_view line) {
    std::vector<MemberSpan> spans;
    std::size_t at = skip_blanks(line, 0);
    if (at == line.size() || line[at] != '{') {
        return spans;
    }
    ++at;
    while (true) {
        const std::size_t begin = skip_blanks(line, at);
        if (begin >= line.size() || line[begin] != '"') {
            return spans;
        }
        const std::size_t name_end = string_end(line, begin);
        const std::size_t colon = skip_blanks(line, name_end);
        if (colon >= line.size() || line[colon] != ':') {
            return spans;
        }
        const std::size_t end = value_end(line, skip_blanks(line, colon + 1));
        spans.push_back({line.substr(begin + 1, name_end - begin - 2), begin, end});
        at = skip_blanks(line, end);
        if (at >= line.size() || line[at] != ',') {
            return spans;
        }
        ++at;
    }
}

std::string marked_line(std::string_view line, std::string_view members) {
    std::string text;
    std::size_t done = 0;
    for (const MemberSpan& span : member_spans(line)) {
        if (is_listed(members, span.name)) {
            text += escaped_markup(line.substr(done, span.begin - done)) + "<mark>" +
                    escaped_markup(line.substr(span.begin, span.end - span.begin)) + "</mark>";
            done = span.end;
        }
    }
    return text + escaped_markup(line.substr(done));
}

std::string hex_rows(std::string_view hex) {
    const bool valid =
        hex.size() % 2 == 0 && std::all_of(hex.begin(), hex.end(), [](char c) { return digit_of(c) >= 0; });
    if (!valid) {
        return escaped_markup(hex.substr(0, 2 * hex_bytes_max));
    }
    const std::size_t bytes = std::min(hex.size() / 2, hex_bytes_max);
    std::string rows;
    for (std::size_t row = 0; row < bytes; row += bytes_a_row) {
        std::string characters;
        rows += fmt::format("<i>{:04x}</i> ", row);
        for (std::size_t at = row; at != row + bytes_a_row; ++at) {
            if (at == row + bytes_a_row / 2) {
                rows += ' ';
            }
            if (at >= bytes) {
                rows += "   ";
                continue;
            }
            const int byte = digit_of(hex[2 * at]) * 16 + digit_of(hex[2 * at + 1]);
            rows += fmt::format(" {:02x}", byte);
            characters += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
        }
        rows += "  <i>" + escaped_markup(characters) + "</i>\n";
    }
    return bytes * 2 == hex.size() ? rows : rows + "...\n";
}

std::string field_rows(std::string_view object) {
    const nlohmann::ordered_json fields = nlohmann::ordered_json::parse(object, nullptr, false);
    if (!fields.is_object()) {
        return "";
    }
    std::string rows;
    std::size_t shown = 0;
    for (const auto& [name, value] : fields.items()) {
        if (shown++ == fields_max) {
            break;
        }
        const std::string text =
            value.is_string() ? value.get<std::string>()
                              : value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
        rows += fmt::format("<tr><th scope=\"row\">{}</th><td>{}</td></tr>", escaped_markup(name),
                            escaped_markup(text));
    }
    return rows;
}

}  // namespace tessel::certify
