#pragma once

#include "wire/field_table.h"

#include <span>
#include <string_view>

// The packets that carry the messages, for the message reference and the dissector. The code that writes and
// reads them (mold/, soup/) has its own sizes.
namespace tessel::layout {

// clang-format off
inline constexpr Field mold_header_fields[] = {
    {0, 10, Kind::text, "session", "Session"},
    {10, 8, Kind::integer, "packet_sequence", "Packet Sequence Number", {}, "of the packet's first message"},
    {18, 2, Kind::integer, "packet_count", "Message Count", {}, "0 in a heartbeat"},
};

inline constexpr Field mold_request_fields[] = {
    {0, 10, Kind::text, "session", "Session", {}, "the feed's; others are ignored"},
    {10, 8, Kind::integer, "packet_sequence", "Sequence Number", {}, "of the first message wanted"},
    {18, 2, Kind::integer, "packet_count", "Message Count", {}, "messages wanted"},
};

inline constexpr Field mold_block_fields[] = {
    {0, 2, Kind::integer, "length", "Message Length", {}, "bytes of the message that follows"},
};

inline constexpr Code soup_codes[] = {
    {"L", "Login Request"},
    {"A", "Login Accepted"},
    {"J", "Login Rejected"},
    {"H", "Server Heartbeat"},
    {"R", "Client Heartbeat"},
    {"S", "Sequenced Data"},
    {"U", "Unsequenced Data"},
    {"Z", "End of Session"},
    {"O", "Logout Request"},
    {"+", "Debug"},
};

inline constexpr Field soup_header_fields[] = {
    {0, 2, Kind::integer, "packet_length", "Packet Length", {}, "bytes that follow"},
    {2, 1, Kind::letter, "packet_type", "Packet Type", soup_codes},
};

inline constexpr Code reject_codes[] = {
    {"A", "not authorized: no user name, another client is logged in, or too many connections"},
    {"S", "no such session, or a sequence number other than 1"},
};

inline constexpr Field soup_login_fields[] = {
    {3, 6, Kind::text, "username", "Username"},
    {9, 10, Kind::text, "password", "Password", {}, "not checked"},
    {19, 10, Kind::text, "session", "Requested Session", {}, "blank or the feed's session"},
    {29, 20, Kind::text, "requested_sequence", "Requested Sequence Number", {}, "digits: blank, 0 or 1"},
};

inline constexpr Field soup_accepted_fields[] = {
    {3, 10, Kind::text, "session", "Session"},
    {13, 20, Kind::text, "next_sequence", "Sequence Number", {}, "always 1"},
};

inline constexpr Field soup_rejected_fields[] = {
    {3, 1, Kind::letter, "reject_code", "Reject Reason Code", reject_codes},
};

// What follows a SoupBinTCP packet's type.
struct SoupPayload {
    char type;
    std::span<const Field> fields;
};

inline constexpr SoupPayload soup_payloads[] = {
    {'L', soup_login_fields},
    {'A', soup_accepted_fields},
    {'J', soup_rejected_fields},
};
// clang-format on

}  // namespace tessel::layout
