#include "judge/line_reader.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <exception>
#include <set>

namespace tessel::judge {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view seq_head = R"({"seq":)";
constexpr std::string_view mark_head = R"({"mark":")";
constexpr std::string_view mark_tail = R"(","seq":)";

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Walks over one line. Every function moves `at` past what it accepted; when the text is not what it looks
// for it returns false and `at` is unspecified.
struct Scanner {
    const char* begin;
    const char* at;
    const char* end;

    void skip_blanks() {
        while (at != end && is_blank(*at)) {
            ++at;
        }
    }

    bool take(char c) {
        if (at == end || *at != c) {
            return false;
        }
        ++at;
        return true;
    }

    // A string of plain ASCII without escapes; `content` is the text between the quotes.
    bool take_string(std::string_view& content) {
        if (!take('"')) {
            return false;
        }
        const char* const first = at;
        while (at != end && *at != '"') {
            const auto byte = static_cast<unsigned char>(*at);
            if (byte < 0x20 || byte >= 0x7f || byte == '\\') {
                return false;
            }
            ++at;
        }
        content = std::string_view(first, static_cast<std::size_t>(at - first));
        return take('"');
    }

    bool take_digits() {
        const char* const first = at;
        while (at != end && is_digit(*at)) {
            ++at;
        }
        return at != first;
    }

    // JSON's number grammar: no leading zeros, no leading plus, digits on both sides of the point.
    bool take_number() {
        take('-');
        const char* const first = at;
        if (!take_digits() || (*first == '0' && at - first > 1)) {
            return false;
        }
        if (take('.') && !take_digits()) {
            return false;
        }
        if (at != end && (*at == 'e' || *at == 'E')) {
            ++at;
            if (at != end && (*at == '+' || *at == '-')) {
                ++at;
            }
            return take_digits();
        }
        return true;
    }

    bool take_literal() {
        for (const std::string_view word : {"null", "true", "false"}) {
            if (std::string_view(at, static_cast<std::size_t>(end - at)).substr(0, word.size()) == word) {
                at += word.size();
                return true;
            }
        }
        return false;
    }

    // A number, a plain string, null, true, false, or an array of these and of arrays, no deeper than a list
    // of levels.
    bool take_value(int depth) {
        if (at == end) {
            return false;
        }
        if (*at == '"') {
            std::string_view content;
            return take_string(content);
        }
        if (*at != '[') {
            return *at == '-' || is_digit(*at) ? take_number() : take_literal();
        }
        if (depth == 3) {
            return false;
        }
        ++at;
        skip_blanks();
        if (take(']')) {
            return true;
        }
        while (true) {
            skip_blanks();
            if (!take_value(depth + 1)) {
                return false;
            }
            skip_blanks();
            if (take(']')) {
                return true;
            }
            if (!take(',')) {
                return false;
            }
        }
    }
};

// Index of a member by name, member_count when no truth line has it. The length and first letter settle
// nearly every comparison, so a walk through the table is quick enough.
std::size_t member_index(std::string_view name) {
    std::size_t index = 0;
    while (index != member_count && member_names[index] != name) {
        ++index;
    }
    return index;
}

bool read_unsigned(std::string_view text, std::uint64_t& value) {
    const auto [last, fault] = std::from_chars(text.data(), text.data() + text.size(), value);
    return fault == std::errc() && last == text.data() + text.size() && !text.empty();
}

// The feed writes a mark's label as it was given, quotes included, so the label itself is not looked at.
bool read_mark(std::string_view text, Line& out) {
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    if (text.substr(0, mark_head.size()) != mark_head || text.back() != '}') {
        return false;
    }
    const std::size_t tail = text.rfind(mark_tail);
    if (tail == std::string_view::npos || tail < mark_head.size()) {
        return false;
    }
    const std::size_t number = tail + mark_tail.size();
    out.mark = true;
    return read_unsigned(text.substr(number, text.size() - 1 - number), out.seq);
}

bool too_deep(std::string_view text) {
    int depth = 0;
    int deepest = 0;
    for (const char c : text) {
        if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return deepest > nesting_max;
}

bool fail(std::string& error, std::string reason) {
    error = std::move(reason);
    return false;
}

// Empties a line but keeps its memory.
void clear_line(Line& line) {
    line.seq = 0;
    line.mark = false;
    line.members = {};
    line.unknown_members.clear();
    line.rewritten.clear();
}

// Adds a text to the rewritten line.
Span append(Line& line, std::string_view text) {
    const Span span{static_cast<std::uint32_t>(line.rewritten.size()),
                    static_cast<std::uint32_t>(text.size())};
    line.rewritten += text;
    return span;
}

// Parses with the library. A member given twice is watched for here, since the parsed object keeps only one
// of them; members that are never compared may be given as often as a handler likes.
bool parse_object(std::string_view text, Json& object, std::string& error) {
    std::set<std::string> names;
    std::string twice;
    const auto watch = [&](int depth, Json::parse_event_t event, Json& parsed) {
        if (event == Json::parse_event_t::key && depth == 1) {
            const auto name = parsed.get<std::string>();
            const bool counts = name == "seq" || member_index(name) != member_count;
            if (counts && !names.insert(name).second) {
                twice = name;
            }
        }
        return true;
    };
    try {
        object = Json::parse(text.begin(), text.end(), watch);
    } catch (const Json::parse_error& fault) {
        return fail(error, fmt::format("not JSON: broken at byte {}", fault.byte));
    } catch (const std::exception& fault) {  // a number too large for a double
        return fail(error, fmt::format("not JSON: {}", fault.what()));
    }
    if (!object.is_object()) {
        return fail(error, "not a JSON object");
    }
    if (!twice.empty()) {
        return fail(error, fmt::format("member '{}' is given twice", twice));
    }
    return true;
}

}  // namespace

bool peek_sequence(std::string_view text, std::uint64_t& seq) {
    if (text.substr(0, seq_head.size()) != seq_head) {
        return false;
    }
    text.remove_prefix(seq_head.size());
    if (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    if (text.size() > 1 && text[0] == '0' && is_digit(text[1])) {
        return false;  // a leading zero is not JSON: let the full reader say so
    }
    const auto [last, fault] = std::from_chars(text.data(), text.data() + text.size(), seq);
    return fault == std::errc() && last != text.data() + text.size() && (*last == ',' || *last == '}');
}

bool read_line_quickly(std::string_view text, Line& out) {
    Scanner scan{text.data(), text.data(), text.data() + text.size()};
    bool has_seq = false;
    scan.skip_blanks();
    if (!scan.take('{')) {
        return false;
    }
    do {
        std::string_view name;
        scan.skip_blanks();
        if (!scan.take_string(name)) {
            return false;
        }
        scan.skip_blanks();
        if (!scan.take(':')) {
            return false;
        }
        scan.skip_blanks();
        const char* const first = scan.at;
        if (!scan.take_value(0)) {
            return false;
        }
        const auto length = static_cast<std::size_t>(scan.at - first);
        if (name == "seq") {
            if (has_seq || !read_unsigned(std::string_view(first, length), out.seq)) {
                return false;
            }
            has_seq = true;
        } else if (const std::size_t index = member_index(name); index != member_count) {
            if (out.members[index].length != 0) {
                return false;
            }
            out.members[index] = {static_cast<std::uint32_t>(first - scan.begin),
                                  static_cast<std::uint32_t>(length)};
        } else if (name == "mark") {
            return false;
        } else {
            out.unknown_members.push_back(
                {{static_cast<std::uint32_t>(name.data() - scan.begin),
                  static_cast<std::uint32_t>(name.size())},
                 {static_cast<std::uint32_t>(first - scan.begin), static_cast<std::uint32_t>(length)}});
        }
        scan.skip_blanks();
    } while (scan.take(','));
    if (!scan.take('}')) {
        return false;
    }
    scan.skip_blanks();
    return has_seq && scan.at == scan.end;
}

bool read_line_fully(std::string_view text, Line& out, std::string& error) {
    if (too_deep(text)) {
        return fail(error, fmt::format("nested deeper than {}", nesting_max));
    }
    // The library takes a NUL for the end of its input.
    if (const std::size_t place = text.find('\0'); place != std::string_view::npos) {
        return fail(error, fmt::format("not JSON: broken at byte {}", place + 1));
    }
    Json object;
    if (!parse_object(text, object, error)) {
        return false;
    }
    const auto seq = object.find("seq");
    if (seq == object.end()) {
        return fail(error, "no member 'seq'");
    }
    if (!seq->is_number_unsigned()) {
        return fail(error, "member 'seq' is not a whole number from 0 up");
    }
    out.seq = seq->get<std::uint64_t>();
    out.rewritten = "{}";  // not empty, which says that the spans refer to it
    for (const auto& [name, value] : object.items()) {
        const std::size_t index = member_index(name);
        if (name == "mark") {
            out.mark = true;
        } else if (index != member_count) {
            out.members[index] = append(out, value.dump(-1, ' ', false, Json::error_handler_t::replace));
        } else if (name != "seq") {
            const Span name_span = append(out, name);
            out.unknown_members.push_back(
                {name_span, append(out, value.dump(-1, ' ', false, Json::error_handler_t::replace))});
        }
    }
    return true;
}

bool read_line(std::string_view text, Line& out, std::string& error) {
    clear_line(out);
    if (text.size() > line_bytes_max) {
        return fail(error, fmt::format("line longer than {} bytes", line_bytes_max));
    }
    if (read_line_quickly(text, out)) {
        return true;
    }
    clear_line(out);
    if (read_mark(text, out)) {
        return true;
    }
    clear_line(out);
    return read_line_fully(text, out, error);
}

std::size_t find_line_after_torn(std::string_view text) {
    constexpr std::size_t attempts_max = 16;  // bounds the time that one long bad line can take
    Line line;
    std::string error;
    std::size_t place = 1;
    for (std::size_t attempt = 0; attempt != attempts_max; ++attempt) {
        const std::size_t message = text.find(seq_head, place);
        const std::size_t mark = text.find(mark_head, place);
        place = std::min(message, mark);
        if (place == std::string_view::npos) {
            return 0;
        }
        if (read_line(text.substr(place), line, error)) {
            return place;
        }
        ++place;
    }
    return 0;
}

std::string_view span_text(const Line& line, std::string_view text, Span span) {
    const std::string_view base = line.rewritten.empty() ? text : std::string_view(line.rewritten);
    return base.substr(span.offset, span.length);
}

std::string_view member_text(const Line& line, std::string_view text, std::size_t member) {
    const Span span = line.members[member];
    return span.length == 0 ? std::string_view() : span_text(line, text, span);
}

}  // namespace tessel::judge
