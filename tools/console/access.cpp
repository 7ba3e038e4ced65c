#include "console/access.h"

#include <sys/random.h>
#include <cstddef>

namespace tessel::console {

namespace {

constexpr std::size_t token_bytes = 16;
constexpr std::uint16_t http_port = 80;  // which a browser leaves out

char lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool same_name(std::string_view one, std::string_view other) {
    if (one.size() != other.size()) {
        return false;
    }
    for (std::size_t at = 0; at < one.size(); ++at) {
        if (lower(one[at]) != lower(other[at])) {
            return false;
        }
    }
    return true;
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace

std::string make_token() {
    unsigned char bytes[token_bytes];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        return "";
    }
    std::string token;
    for (const unsigned char byte : bytes) {
        token += static_cast<char>('a' + (byte >> 4));
        token += static_cast<char>('a' + (byte & 0xf));
    }
    return token;
}

bool same_secret(std::string_view one, std::string_view other) {
    if (one.size() != other.size()) {
        return false;
    }
    unsigned difference = 0;
    for (std::size_t at = 0; at < one.size(); ++at) {
        difference |= static_cast<unsigned>(static_cast<unsigned char>(one[at])) ^
                      static_cast<unsigned>(static_cast<unsigned char>(other[at]));
    }
    return difference == 0;
}

std::string cookie_name(const AccessRules& rules) {
    return "tessel_console_" + std::to_string(rules.port);
}

std::string token_of_cookies(std::string_view cookies, std::string_view name) {
    while (!cookies.empty()) {
        const std::size_t end = std::min(cookies.find(';'), cookies.size());
        const std::string_view pair = trim(cookies.substr(0, end));
        if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=') {
            return std::string(pair.substr(name.size() + 1));
        }
        cookies.remove_prefix(std::min(end + 1, cookies.size()));
    }
    return "";
}

std::string token_of_authorization(std::string_view header) {
    constexpr std::string_view scheme = "bearer ";
    const std::string_view text = trim(header);
    if (text.size() <= scheme.size() || !same_name(text.substr(0, scheme.size()), scheme)) {
        return "";
    }
    return std::string(trim(text.substr(scheme.size())));
}

bool is_own_host(const AccessRules& rules, std::string_view header, std::string_view local_address) {
    std::string_view host = trim(header);
    const std::string port = ":" + std::to_string(rules.port);
    if (host.ends_with(port)) {
        host.remove_suffix(port.size());
    } else if (rules.port != http_port) {
        return false;
    }
    return same_name(host, rules.host) || same_name(host, "127.0.0.1") || same_name(host, "localhost") ||
           (rules.every_address && !local_address.empty() && host == local_address);
}

bool is_own_origin(const AccessRules& rules, std::string_view header, std::string_view local_address) {
    constexpr std::string_view scheme = "http://";
    const std::string_view origin = trim(header);
    return origin.size() > scheme.size() && same_name(origin.substr(0, scheme.size()), scheme) &&
           is_own_host(rules, origin.substr(scheme.size()), local_address);
}

}  // namespace tessel::console
