#include "certify/options.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

std::vector<Handler> handlers_of(const std::vector<std::string>& texts) {
    std::vector<Handler> handlers;
    std::string error;
    EXPECT_TRUE(parse_handlers(texts, handlers, error)) << error;
    return handlers;
}

TEST(Handlers, OneText_IsACommandUnlessAWordNamesIt) {
    for (const char* const command : {"./h --port={port}", "FOO=1 ./h", "./h=2", "h {out}", "a b=c"}) {
        const std::vector<Handler> handlers = handlers_of({command});
        ASSERT_EQ(handlers.size(), 1U);
        EXPECT_EQ(handlers[0].name, "handler");
        EXPECT_EQ(handlers[0].command, command);
    }
    const std::vector<Handler> named = handlers_of({"good=./h --x=1"});
    EXPECT_EQ(named[0].name, "good");
    EXPECT_EQ(named[0].command, "./h --x=1");
}

TEST(Handlers, OfSeveral_EachHasAnotherName) {
    const std::vector<Handler> handlers = handlers_of({"A=./a", "b=./b"});
    EXPECT_EQ(handlers[0].name, "A");
    EXPECT_EQ(handlers[1].name, "b");
    for (const std::vector<std::string>& texts : std::vector<std::vector<std::string>>{
             {"./a", "./b"}, {"a=./a", "./b --x=1"}, {"a=./a", "a=./b"}, {"a=./a", "b= "}, {" "}}) {
        std::vector<Handler> out;
        std::string error;
        EXPECT_FALSE(parse_handlers(texts, out, error)) << texts[0];
    }
}

}  // namespace
}  // namespace tessel::certify
