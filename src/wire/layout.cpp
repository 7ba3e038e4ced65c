#include "wire/layout.h"

#include "base/byte_order.h"

namespace tessel::layout {

namespace {

// The blocks follow each other without a gap, and so do the fields of each.
constexpr bool is_gapless(std::span<const Field> fields) {
    std::size_t at = fields.front().offset;
    for (const Field& field : fields) {
        if (field.offset != at || field.width == 0) {
            return false;
        }
        at += field.width;
    }
    return true;
}

constexpr bool is_gapless(const Message& message) {
    std::size_t at = bytes_of(header_fields);
    for (const Block& block : message.blocks) {
        if (block.offset + block.fields.front().offset != at || !is_gapless(block.fields)) {
            return false;
        }
        at += bytes_of(block.fields);
    }
    return at == message.bytes;
}

constexpr bool all_are_gapless() {
    for (const Message& message : messages) {
        if (!is_gapless(message)) {
            return false;
        }
    }
    for (const Appendage& appendage : appendages) {
        if (!is_gapless(appendage.block.fields) || appendage.block.fields.front().offset != 0) {
            return false;
        }
    }
    return is_gapless(header_fields) && header_fields[0].offset == 0;
}

static_assert(all_are_gapless());

void add_block(std::vector<LocatedField>& out, const Block& block, std::size_t start, std::size_t entry,
               std::size_t length) {
    for (const Field& field : block.fields) {
        const std::size_t offset = start + block.offset + field.offset;
        if (offset + field.width <= length) {
            out.push_back({&field, &block, offset, entry});
        }
    }
}

// Where the indicator is in the message; 0 when the message lacks it.
std::size_t indicator_offset(const Message& message, const Appendage& appendage) {
    switch (appendage.indicator[0]) {
        case 'n': return message.indicators.nbbo;
        case 'a': return message.indicators.adf_mpid;
        case 'b': return message.indicators.best_odd_lot;
        default: return message.indicators.odd_lot_list;
    }
}

std::size_t add_appendages(std::vector<LocatedField>& out, const Message& message, const unsigned char* bytes,
                           std::size_t length) {
    std::size_t at = message.bytes;
    for (const Appendage& appendage : appendages) {
        const std::size_t indicator = indicator_offset(message, appendage);
        if (indicator == 0 || bytes[indicator] != static_cast<unsigned char>(appendage.value)) {
            continue;
        }
        const std::size_t count_at = message.indicators.odd_lot_count;
        const std::size_t count =
            appendage.block.repeated ? static_cast<std::size_t>(read_big_endian(bytes + count_at, 2)) : 1;
        const std::size_t entry_bytes = bytes_of(appendage.block.fields);
        for (std::size_t entry = 0; entry < count && at + entry * entry_bytes < length; ++entry) {
            add_block(out, appendage.block, at + entry * entry_bytes, entry, length);
        }
        at += count * entry_bytes;
    }
    return at;
}

}  // namespace

std::size_t locate_fields(std::vector<LocatedField>& out, const unsigned char* bytes, std::size_t length) {
    out.clear();
    add_block(out, header_block, 0, 0, length);
    const std::size_t header_end = bytes_of(header_fields);
    const Message* const message =
        length < header_end ? nullptr
                            : find_message(static_cast<char>(bytes[1]), static_cast<char>(bytes[2]));
    if (message == nullptr) {
        return header_end;
    }
    for (const Block& block : message->blocks) {
        add_block(out, block, 0, 0, length);
    }
    if (!message->is_open() || length < message->bytes) {
        return message->bytes;
    }
    return add_appendages(out, *message, bytes, length);
}

std::uint64_t integer_at(const unsigned char* bytes, const LocatedField& located) {
    return read_big_endian(bytes + located.offset, located.field->width);
}

}  // namespace tessel::layout
