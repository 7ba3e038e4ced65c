#include "layout.h"

#include <cstdint>
#include <map>

namespace tessel::model {

namespace {

using Fields = std::vector<Field>;

// A table is written as widths in the order of the wire; the offsets follow.
struct Column {
    const char* name;
    std::size_t width;
    char kind;
};

const std::vector<Column> common_header = {
    {"version", 1, 't'},          {"category", 1, 't'},          {"type", 1, 't'},
    {"market center", 1, 't'},    {"sub-market center", 1, 't'}, {"SIP time", 8, 's'},
    {"participant time", 8, 's'}, {"participant token", 8, 'n'},
};

const std::vector<Column> short_quote = {
    {"symbol", 5, 't'},       {"bid", 2, 'n'},         {"bid size", 2, 'n'},  {"ask", 2, 'n'},
    {"ask size", 2, 'n'},     {"condition", 1, 't'},   {"SIP flag", 1, 't'},  {"LULD BBO", 1, 't'},
    {"retail", 1, 't'},       {"NBBO ind", 1, 't'},    {"LULD NBBO", 1, 't'}, {"best odd ind", 1, 't'},
    {"odd list ind", 1, 't'}, {"odd entries", 2, 'n'},
};

const std::vector<Column> long_quote = {
    {"ADF time", 8, 's'}, {"symbol", 11, 't'},      {"bid", 8, 'n'},          {"bid size", 4, 'n'},
    {"ask", 8, 'n'},      {"ask size", 4, 'n'},     {"condition", 1, 't'},    {"SIP flag", 1, 't'},
    {"LULD BBO", 1, 't'}, {"retail", 1, 't'},       {"NBBO ind", 1, 't'},     {"LULD NBBO", 1, 't'},
    {"MPID ind", 1, 't'}, {"best odd ind", 1, 't'}, {"odd list ind", 1, 't'}, {"odd entries", 2, 'n'},
};

const std::vector<Column> statistics = {
    {"high", 8, 'n'},
    {"low", 8, 'n'},
    {"last", 8, 'n'},
    {"volume", 8, 'n'},
};

struct Layout {
    const char* name;
    std::vector<Column> columns;
};

const std::map<std::string, Layout>& layouts() {
    static const std::map<std::string, Layout> table = {
        {"CI", {"start-of-day", {}}},
        {"CO", {"session-open", {}}},
        {"CP", {"wipe-out", {}}},
        {"AC", {"decline-levels", {{"level 1", 8, 'n'}, {"level 2", 8, 'n'}, {"level 3", 8, 'n'}}}},
        {"AS", {"end-of-snapshot", {{"last sequence", 8, 'n'}}}},
        {"AD", {"breaker-status", {{"level", 1, 't'}}}},
        {"AV", {"indicator", {{"symbol", 11, 't'}, {"indicator", 1, 't'}}}},
        {"AB",
         {"directory-short",
          {{"symbol", 11, 't'},
           {"old symbol", 11, 't'},
           {"issue name", 30, 't'},
           {"issue type", 1, 't'},
           {"issue sub-type", 2, 't'},
           {"flags", 3, 't'},
           {"round lot", 2, 'n'},
           {"letter", 1, 't'}}}},
        {"AF",
         {"directory-long",
          {{"symbol", 11, 't'},
           {"old symbol", 11, 't'},
           {"issue name", 30, 't'},
           {"issue type", 1, 't'},
           {"issue sub-type", 2, 't'},
           {"flags", 3, 't'},
           {"round lot", 2, 'n'},
           {"letters", 4, 't'},
           {"state", 1, 't'},
           {"reason", 6, 't'},
           {"indicator", 1, 't'},
           {"reserved 1", 8, 'n'},
           {"reserved 2", 8, 'n'}}}},
        {"AH",
         {"trading-action",
          {{"symbol", 11, 't'},
           {"action", 1, 't'},
           {"action number", 4, 'n'},
           {"action time", 8, 's'},
           {"reason", 6, 't'}}}},
        {"AP",
         {"price-band",
          {{"symbol", 11, 't'},
           {"indicator", 1, 't'},
           {"effective time", 8, 's'},
           {"lower", 8, 'n'},
           {"upper", 8, 'n'}}}},
        {"AE",
         {"collar",
          {{"symbol", 11, 't'},
           {"action number", 4, 'n'},
           {"reference", 8, 'n'},
           {"upper", 8, 'n'},
           {"lower", 8, 'n'},
           {"extension", 1, 'n'}}}},
        {"QC", {"quote-short", short_quote}},
        {"QD", {"quote-long", long_quote}},
        {"QM",
         {"quote-mpid",
          {{"ADF time", 8, 's'},
           {"symbol", 11, 't'},
           {"bid", 8, 'n'},
           {"bid size", 4, 'n'},
           {"ask", 8, 'n'},
           {"ask size", 4, 'n'},
           {"condition", 1, 't'},
           {"MPID", 4, 't'}}}},
        {"TM",
         {"trade-short",
          {{"TRF time", 8, 's'},
           {"symbol", 5, 't'},
           {"trade id", 8, 'n'},
           {"price", 2, 'n'},
           {"size", 8, 'n'},
           {"conditions", 4, 't'},
           {"exempt", 1, 't'},
           {"change", 1, 't'},
           {"center change", 1, 't'}}}},
        {"TN",
         {"trade-long",
          {{"TRF time", 8, 's'},
           {"symbol", 11, 't'},
           {"trade id", 8, 'n'},
           {"price", 8, 'n'},
           {"size", 8, 'n'},
           {"conditions", 4, 't'},
           {"exempt", 1, 't'},
           {"sale days", 2, 'n'},
           {"change", 1, 't'},
           {"center change", 1, 't'}}}},
        {"TO",
         {"trade-cancel",
          {{"TRF time", 8, 's'},
           {"symbol", 11, 't'},
           {"function", 1, 't'},
           {"trade id", 8, 'n'},
           {"price", 8, 'n'},
           {"size", 8, 'n'},
           {"conditions", 4, 't'},
           {"exempt", 1, 't'},
           {"sale days", 2, 'n'}}}},
        {"TP",
         {"trade-correction",
          {{"TRF time", 8, 's'},
           {"symbol", 11, 't'},
           {"old id", 8, 'n'},
           {"old price", 8, 'n'},
           {"old size", 8, 'n'},
           {"old conditions", 4, 't'},
           {"old exempt", 1, 't'},
           {"old sale days", 2, 'n'},
           {"new id", 8, 'n'},
           {"new price", 8, 'n'},
           {"new size", 8, 'n'},
           {"new conditions", 4, 't'},
           {"new exempt", 1, 't'},
           {"new sale days", 2, 'n'}}}},
        {"TQ",
         {"trade-as-of",
          {{"TRF time", 8, 's'},
           {"symbol", 11, 't'},
           {"trade id", 8, 'n'},
           {"price", 8, 'n'},
           {"size", 8, 'n'},
           {"conditions", 4, 't'},
           {"exempt", 1, 't'},
           {"sale days", 2, 'n'},
           {"action", 1, 't'},
           {"execution time", 8, 's'}}}},
    };
    return table;
}

const Layout* layout_of(const std::string& message) {
    if (message.size() < 29)
        return nullptr;
    const auto found = layouts().find(message.substr(1, 2));
    return found == layouts().end() ? nullptr : &found->second;
}

void add(Fields& fields, const std::vector<Column>& columns) {
    std::size_t at = fields.empty() ? 0 : fields.back().offset + fields.back().width;
    for (const Column& c : columns) {
        fields.push_back({c.name, at, c.width, c.kind});
        at += c.width;
    }
}

void add_appendages(Fields& fields, const std::string& message, bool is_long) {
    const std::size_t base = is_long ? 76 : 46;
    const char nbbo = message[base];
    const char best = message[is_long ? base + 3 : base + 2];
    const char list = message[is_long ? base + 4 : base + 3];
    if (nbbo == '2' || nbbo == '3') {
        const std::size_t price = nbbo == '2' ? 2 : 8, size = nbbo == '2' ? 2 : 4;
        add(fields, {{"NBBO condition", 1, 't'},
                     {"NBBO bid center", 1, 't'},
                     {"NBBO bid", price, 'n'},
                     {"NBBO bid size", size, 'n'},
                     {"NBBO ask center", 1, 't'},
                     {"NBBO ask", price, 'n'},
                     {"NBBO ask size", size, 'n'}});
    }
    if (is_long && message[78] == '2')
        add(fields, {{"bid MPID", 4, 't'}, {"ask MPID", 4, 't'}});
    if (best == '2' || best == '3' || best == '5') {
        const std::size_t price = best == '2' ? 2 : 8;
        add(fields, {{"odd bid center", 1, 't'},
                     {"odd bid", price, 'n'},
                     {"odd bid size", 2, 'n'},
                     {"odd ask center", 1, 't'},
                     {"odd ask", price, 'n'},
                     {"odd ask size", 2, 'n'}});
        if (best == '5')
            add(fields, {{"odd bid MPID", 4, 't'}, {"odd ask MPID", 4, 't'}});
    }
    const std::size_t count_at = is_long ? 81 : 50;
    const std::size_t count = static_cast<unsigned char>(message[count_at + 1]);
    for (std::size_t i = 0; i < count && (list == '2' || list == '3' || list == '5'); ++i) {
        add(fields, {{"list center", 1, 't'},
                     {"list side", 1, 't'},
                     {"list price", list == '2' ? std::size_t{2} : std::size_t{8}, 'n'},
                     {"list size", 2, 'n'}});
        if (list == '5')
            add(fields, {{"list MPID", 4, 't'}});
    }
}

std::string value_of(const std::string& message, const Field& field) {
    if (field.offset + field.width > message.size())
        return "(missing)";
    const std::string bytes = message.substr(field.offset, field.width);
    if (field.kind == 't')
        return "'" + bytes + "'";
    std::uint64_t value = 0;
    for (char c : bytes)
        value = value << 8 | static_cast<unsigned char>(c);
    return std::to_string(value);
}

}  // namespace

std::string type_name(const std::string& message) {
    const Layout* layout = layout_of(message);
    return layout == nullptr ? "unknown" : layout->name;
}

std::vector<Field> fields_of(const std::string& message) {
    Fields fields;
    add(fields, common_header);
    const Layout* layout = layout_of(message);
    if (layout != nullptr) {
        add(fields, layout->columns);
        const std::string type = message.substr(1, 2);
        const std::size_t fixed = fields.back().offset + fields.back().width;
        if ((type == "QC" || type == "QD") && message.size() >= fixed)
            add_appendages(fields, message, type == "QD");
        if (type == "TO" || type == "TP") {
            add(fields, statistics);
            add(fields, {{"change", 1, 't'}, {"last center", 1, 't'}});
            add(fields, statistics);
        }
    }
    const std::size_t end = fields.back().offset + fields.back().width;
    if (end < message.size())
        add(fields, {{"behind the end", message.size() - end, 't'}});
    return fields;
}

std::string without_times(std::string message) {
    for (const Field& field : fields_of(message)) {
        if (field.kind == 's' && field.offset + field.width <= message.size()) {
            message.replace(field.offset, field.width, field.width, '\0');
        }
    }
    return message;
}

std::string to_hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

std::string from_hex(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return out;
}

std::string difference(const std::string& expected, const std::string& got) {
    if (expected == got)
        return "";
    std::string where =
        "length: expected " + std::to_string(expected.size()) + " bytes, got " + std::to_string(got.size());
    for (const Field& field : fields_of(expected)) {
        if (expected.substr(field.offset, field.width) ==
            (field.offset < got.size() ? got.substr(field.offset, field.width) : std::string())) {
            continue;
        }
        where = std::string(field.name) + " at offset " + std::to_string(field.offset) + ": expected " +
                value_of(expected, field) + ", got " + value_of(got, field);
        break;
    }
    return type_name(expected) + " expected, " + type_name(got) + " got; " + where + "\nexpected " +
           to_hex(expected) + "\ngot      " + to_hex(got);
}

}  // namespace tessel::model
