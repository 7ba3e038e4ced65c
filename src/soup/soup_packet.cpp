#include "soup/soup_packet.h"

#include "base/byte_order.h"

#include <array>

namespace tessel::receiver {

namespace {

std::string padded(const std::string& text, std::size_t width) {
    std::string field = text.substr(0, width);
    field.resize(width, ' ');
    return field;
}

std::string framed(char type, const std::string& payload) {
    std::array<unsigned char, soup_length_bytes> length;
    write_big_endian(length.data(), payload.size() + 1, length.size());
    return std::string(length.begin(), length.end()) + type + payload;
}

}  // namespace

void soup_append(SoupReader& reader, const unsigned char* bytes, std::size_t length) {
    reader.bytes.erase(reader.bytes.begin(),
                       reader.bytes.begin() + static_cast<std::ptrdiff_t>(reader.taken));
    reader.taken = 0;
    reader.bytes.insert(reader.bytes.end(), bytes, bytes + length);
}

bool soup_next(SoupReader& reader, SoupPacket& packet, bool* broken) {
    const std::size_t left = reader.bytes.size() - reader.taken;
    if (left < soup_length_bytes) {
        return false;
    }
    const unsigned char* at = reader.bytes.data() + reader.taken;
    const std::size_t length = static_cast<std::size_t>(read_big_endian(at, soup_length_bytes));
    if (length == 0) {
        *broken = true;
        return false;
    }
    if (left < soup_length_bytes + length) {
        return false;
    }
    packet = {static_cast<char>(at[2]), at + 3, length - 1};
    reader.taken += soup_length_bytes + length;
    return true;
}

std::string soup_login(const std::string& user, const std::string& password, const std::string& session) {
    return framed(soup_login_request,
                  padded(user, soup_username_bytes) + padded(password, soup_password_bytes) +
                      padded(session, soup_session_bytes) + padded("1", soup_sequence_bytes));
}

std::string soup_empty_packet(char type) {
    return framed(type, "");
}

}  // namespace tessel::receiver
