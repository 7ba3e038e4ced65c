#include "certify/runner.h"

#include <gtest/gtest.h>

namespace tessel::certify {
namespace {

TEST(CommandAlone, OfACase_HasEverythingThatItNeeds) {
    Options options;
    options.handlers = {{"handler", "./h 'x' {out}"}};
    Case each;
    each.name = "loss/burst";
    EXPECT_EQ(command_alone(options, each, options.handlers[0], 7),
              "tessel-certify --handler './h '\\''x'\\'' {out}' --only=loss/burst --seed=7");
    options.late_arg = "--late";
    options.ready_text = "line:it is up";
    options.ready_timeout_seconds = 2.5;
    options.case_folders = {"/cases"};
    EXPECT_EQ(command_alone(options, each, {"new", "./h"}, 1),
              "tessel-certify --handler new=./h --only=loss/burst --seed=1 --late-arg=--late "
              "--ready='line:it is up' --ready-timeout=2.5 --cases=/cases");
}

}  // namespace
}  // namespace tessel::certify
