#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Who may come in: the token, the Host and the Origin of a request.
namespace tessel::console {

struct AccessRules {
    std::string host = "127.0.0.1";  // as given with --http
    std::uint16_t port = 8080;
    bool every_address = false;  // 0.0.0.0: the address at which a request arrived is ours as well
    std::string token;
    bool metrics_open = false;
};

// 32 letters of 4 random bits each from the system's generator. Empty when it fails.
std::string make_token();

// True when both are equal; the time depends on the lengths alone.
bool same_secret(std::string_view one, std::string_view other);

// The name of the cookie. Cookies do not know ports, so it has the port in it: two consoles of one host keep
// theirs apart.
std::string cookie_name(const AccessRules& rules);

// The token in "a=1; NAME=TOKEN"; empty when there is none.
std::string token_of_cookies(std::string_view cookies, std::string_view name);

// The token in "Bearer TOKEN"; empty when there is none.
std::string token_of_authorization(std::string_view header);

// Whether a Host header names this server: the address given, 127.0.0.1 or localhost with the port.
// `local_address` is where the connection arrived.
bool is_own_host(const AccessRules& rules, std::string_view header, std::string_view local_address);

// Whether an Origin header is that of our own page.
bool is_own_origin(const AccessRules& rules, std::string_view header, std::string_view local_address);

}  // namespace tessel::console
