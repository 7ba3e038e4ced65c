#include "console/access.h"

#include <gtest/gtest.h>

#include <set>

namespace tessel::console {
namespace {

AccessRules rules_of(const std::string& host, std::uint16_t port) {
    AccessRules rules;
    rules.host = host;
    rules.port = port;
    rules.token = "abcdefghijklmnop";
    return rules;
}

TEST(ConsoleAccess, TokensMade_LongLettersAndNeverTheSame) {
    std::set<std::string> seen;
    for (int at = 0; at < 100; ++at) {
        const std::string token = make_token();
        EXPECT_EQ(token.size(), 32u);
        EXPECT_EQ(token.find_first_not_of("abcdefghijklmnop"), std::string::npos) << token;
        seen.insert(token);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(ConsoleAccess, SecretsCompared_OnlyEqualOnesAreTheSame) {
    EXPECT_TRUE(same_secret("abcd", "abcd"));
    EXPECT_FALSE(same_secret("abcd", "abce"));
    EXPECT_FALSE(same_secret("abcd", "bbcd"));
    EXPECT_FALSE(same_secret("abcd", "abc"));
    EXPECT_FALSE(same_secret("", "abcd"));
    EXPECT_FALSE(same_secret("abcd", ""));
}

TEST(ConsoleAccess, CookieHeader_TokenFoundUnderItsNameAlone) {
    EXPECT_EQ(token_of_cookies("t=1", "t"), "1");
    EXPECT_EQ(token_of_cookies("a=2; t=1", "t"), "1");
    EXPECT_EQ(token_of_cookies("tt=2;t=1;b=3", "t"), "1");
    EXPECT_EQ(token_of_cookies("  t=a=b ", "t"), "a=b");
    EXPECT_EQ(token_of_cookies("t", "t"), "");
    EXPECT_EQ(token_of_cookies("t=", "t"), "");
    EXPECT_EQ(token_of_cookies("xt=1", "t"), "");
    EXPECT_EQ(token_of_cookies("", "t"), "");
    EXPECT_EQ(token_of_cookies(";;;", "t"), "");
}

TEST(ConsoleAccess, TwoConsolesOfOneHost_DifferentCookies) {
    EXPECT_NE(cookie_name(rules_of("127.0.0.1", 8080)), cookie_name(rules_of("127.0.0.1", 8081)));
}

TEST(ConsoleAccess, AuthorizationHeader_BearerAlone) {
    EXPECT_EQ(token_of_authorization("Bearer abc"), "abc");
    EXPECT_EQ(token_of_authorization("bearer  abc "), "abc");
    EXPECT_EQ(token_of_authorization("Basic abc"), "");
    EXPECT_EQ(token_of_authorization("Bearer"), "");
    EXPECT_EQ(token_of_authorization(""), "");
}

TEST(ConsoleAccess, HostHeader_OwnNamesWithThePort) {
    const AccessRules rules = rules_of("10.1.2.3", 8080);
    for (const char* host : {"10.1.2.3:8080", "127.0.0.1:8080", "localhost:8080", "LOCALHOST:8080"}) {
        EXPECT_TRUE(is_own_host(rules, host, "10.1.2.3")) << host;
    }
    for (const char* host : {"10.1.2.3", "10.1.2.3:80", "10.1.2.3:8081", "evil.example:8080", "evil.example",
                             "localhost.evil.example:8080", "", ":8080", "10.1.2.3:8080:8080",
                             "127.0.0.2:8080", "localhost:08080", "evil@127.0.0.1:8080"}) {
        EXPECT_FALSE(is_own_host(rules, host, "127.0.0.1")) << host;
    }
}

TEST(ConsoleAccess, EveryAddressServed_TheOneArrivedAtIsOwn) {
    AccessRules rules = rules_of("0.0.0.0", 8080);
    rules.every_address = true;
    EXPECT_TRUE(is_own_host(rules, "10.0.0.7:8080", "10.0.0.7"));
    EXPECT_FALSE(is_own_host(rules, "10.0.0.8:8080", "10.0.0.7"));
    EXPECT_FALSE(is_own_host(rules, "evil.example:8080", "10.0.0.7"));
    EXPECT_FALSE(is_own_host(rules, ":8080", ""));
}

TEST(ConsoleAccess, PortOfHttp_MayBeLeftOut) {
    const AccessRules rules = rules_of("127.0.0.1", 80);
    EXPECT_TRUE(is_own_host(rules, "localhost", "127.0.0.1"));
    EXPECT_TRUE(is_own_host(rules, "localhost:80", "127.0.0.1"));
    EXPECT_FALSE(is_own_host(rules, "localhost:8080", "127.0.0.1"));
}

TEST(ConsoleAccess, OriginHeader_OwnPageAlone) {
    const AccessRules rules = rules_of("127.0.0.1", 8080);
    EXPECT_TRUE(is_own_origin(rules, "http://127.0.0.1:8080", "127.0.0.1"));
    EXPECT_TRUE(is_own_origin(rules, "http://localhost:8080", "127.0.0.1"));
    for (const char* origin : {"null", "", "https://127.0.0.1:8080", "http://evil.example", "http://",
                               "http://127.0.0.1:8081", "http://127.0.0.1:8080/", "127.0.0.1:8080"}) {
        EXPECT_FALSE(is_own_origin(rules, origin, "127.0.0.1")) << origin;
    }
}

}  // namespace
}  // namespace tessel::console
