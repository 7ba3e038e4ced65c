#include "console/web_server.h"

#include "support/console_site.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::console {
namespace {

using testing::TestSite;

std::string head(const std::string& line, const TestSite& test) {
    return line + " HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nAuthorization: Bearer " + test.site.rules.token +
           "\r\n";
}

std::string status_of(const std::string& reply) {
    return reply.substr(0, reply.find("\r\n"));
}

std::string post(const TestSite& test, const std::string& headers, const std::string& body) {
    return head("POST /api/command", test) + headers + "\r\n" + body;
}

TEST(ConsoleWebServer, PlainRequest_AnsweredAndClosed) {
    TestSite test;
    const std::string reply = answer_bytes(test.site, head("GET /api/state?limit=1", test) + "\r\n");
    EXPECT_EQ(status_of(reply), "HTTP/1.1 200 OK");
    EXPECT_NE(reply.find("\r\nConnection: close\r\n"), std::string::npos);
    EXPECT_NE(reply.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
    for (const auto& [name, value] : common_headers()) {
        EXPECT_NE(reply.find("\r\n" + name + ": " + value + "\r\n"), std::string::npos) << name;
    }
}

TEST(ConsoleWebServer, SecurityHeaders_AlsoOnErrors) {
    TestSite test;
    for (const char* request : {"GET / HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n", "GET / HTTP/1.1\r\n\r\n",
                                "BREW / HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n", "rubbish\r\n\r\n"}) {
        const std::string reply = answer_bytes(test.site, request);
        EXPECT_NE(reply.find("HTTP/1.1 4"), std::string::npos) << reply;
        EXPECT_NE(reply.find("\r\nX-Content-Type-Options: nosniff\r\n"), std::string::npos) << request;
        EXPECT_EQ(reply.find("Access-Control"), std::string::npos);
    }
}

TEST(ConsoleWebServer, PercentEncodedSymbol_Decoded) {
    TestSite test({.symbols = "BRK/A:100,A B:5,%41:7"});
    for (const char* path : {"BRK%2FA", "BRK/A", "A%20B", "%2541"}) {
        const std::string request = head(std::string("GET /api/instruments/") + path, test) + "\r\n";
        EXPECT_EQ(status_of(answer_bytes(test.site, request)), "HTTP/1.1 200 OK") << path;
    }
    const std::string unknown = head("GET /api/instruments/A+B", test) + "\r\n";
    EXPECT_EQ(status_of(answer_bytes(test.site, unknown)), "HTTP/1.1 404 Not Found");
}

TEST(ConsoleWebServer, CommandInEveryForm_SentOnce) {
    TestSite test;
    const std::string body = R"({"command":"halt AAPL"})";
    const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
    for (const char* type : {"", "Content-Type: application/json\r\n", "Content-Type: text/plain\r\n",
                             "Content-Type: application/x-www-form-urlencoded\r\n"}) {
        EXPECT_EQ(status_of(answer_bytes(test.site, post(test, length + type, body))), "HTTP/1.1 200 OK")
            << type;
    }
    const std::string chunked = "17\r\n" + body + "\r\n0\r\n\r\n";
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "Transfer-Encoding: chunked\r\n", chunked))),
              "HTTP/1.1 200 OK");
    EXPECT_EQ(test.commands.size(), 5u);
    EXPECT_EQ(test.commands.back(), "halt AAPL");
}

TEST(ConsoleWebServer, BodyTooLong_413InEveryForm) {
    TestSite test;
    const std::string spaces(4097, ' ');
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "Content-Length: 4097\r\n", spaces))),
              "HTTP/1.1 413 Payload Too Large");
    EXPECT_EQ(
        status_of(answer_bytes(test.site, post(test, "Content-Length: 99999999999999999999999\r\n", ""))),
        "HTTP/1.1 413 Payload Too Large");
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "Transfer-Encoding: chunked\r\n",
                                                     "1001\r\n" + spaces + "\r\n0\r\n\r\n"))),
              "HTTP/1.1 413 Payload Too Large");
    EXPECT_EQ(
        status_of(answer_bytes(test.site, post(test, "Content-Length: 4096\r\n", std::string(4096, ' ')))),
        "HTTP/1.1 400 Bad Request");
    EXPECT_TRUE(test.commands.empty());
}

TEST(ConsoleWebServer, BodyMissingOrCutShort_400) {
    TestSite test;
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "", ""))), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "Content-Length: 30\r\n", "{\"command\""))),
              "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "Content-Length: -1\r\n", "{}"))),
              "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, "Transfer-Encoding: chunked\r\n", "zz\r\n"))),
              "HTTP/1.1 400 Bad Request");
    const std::string multipart = "Content-Type: multipart/form-data; boundary=x\r\nContent-Length: 4\r\n";
    EXPECT_EQ(status_of(answer_bytes(test.site, post(test, multipart, "--x\r"))), "HTTP/1.1 400 Bad Request");
    EXPECT_TRUE(test.commands.empty());
}

TEST(ConsoleWebServer, RangesAndEncodings_WholeReplyAllTheSame) {
    TestSite test;
    const std::string request =
        head("GET /api/counters", test) + "Range: bytes=0-1,0-1,0-1\r\nAccept-Encoding: gzip, br\r\n\r\n";
    const std::string reply = answer_bytes(test.site, request);
    EXPECT_EQ(status_of(reply), "HTTP/1.1 200 OK");
    EXPECT_NE(reply.find("{\"quotes\":"), std::string::npos);
    EXPECT_EQ(reply.find("Content-Encoding"), std::string::npos);
}

TEST(ConsoleWebServer, HeadRequest_HeadersWithoutBody) {
    TestSite test;
    const std::string reply = answer_bytes(test.site, head("HEAD /api/counters", test) + "\r\n");
    EXPECT_EQ(status_of(reply), "HTTP/1.1 200 OK");
    EXPECT_TRUE(reply.ends_with("\r\n\r\n"));
}

TEST(ConsoleWebServer, TwoHosts_403) {
    TestSite test;
    const std::string request = head("GET /healthz", test) + "Host: evil.example\r\n\r\n";
    EXPECT_EQ(status_of(answer_bytes(test.site, request)), "HTTP/1.1 403 Forbidden");
}

TEST(ConsoleWebServer, Stream_OneStepInMemoryAndCountedOut) {
    TestSite test;
    const std::string reply = answer_bytes(test.site, head("GET /api/events", test) + "\r\n");
    EXPECT_EQ(status_of(reply), "HTTP/1.1 200 OK");
    EXPECT_NE(reply.find("\r\nContent-Type: text/event-stream\r\n"), std::string::npos);
    EXPECT_NE(reply.find("event: state\ndata: {"), std::string::npos);
    EXPECT_TRUE(reply.ends_with("0\r\n\r\n"));
    EXPECT_EQ(test.site.streams, 0);
}

TEST(ConsoleWebServer, PortTaken_Said) {
    TestSite test;
    WebServer first;
    WebServer second;
    std::string error;
    ASSERT_TRUE(open_web_server(first, test.site, "127.0.0.1", 0, error)) << error;
    EXPECT_NE(first.port, 0);
    EXPECT_FALSE(open_web_server(second, test.site, "127.0.0.1", first.port, error));
    EXPECT_EQ(error, "127.0.0.1:" + std::to_string(first.port) + ": Address already in use");
    stop_web_server(first);
    run_web_server(first);
    EXPECT_TRUE(open_web_server(second, test.site, "localhost", 0, error)) << error;
    stop_web_server(second);
    run_web_server(second);
    EXPECT_FALSE(open_web_server(second, test.site, "no.such.host.invalid", 0, error));
}

}  // namespace
}  // namespace tessel::console
