#include "ctl/settings.h"

#include "app/config.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::ctl {
namespace {

TEST(Settings, EveryOption_IsOneOfTheFeed) {
    for (const SettingKey& key : setting_keys()) {
        if (key.option.empty()) {
            continue;
        }
        const std::string option(key.option);
        const char* const words[] = {option.c_str(), "1"};
        FeedConfig config;
        std::string error;
        EXPECT_TRUE(parse_command_line(key.form == Form::flag ? 1 : 2, words, config, error)) << error;
        EXPECT_EQ(find_option(key.option), &key);
        EXPECT_EQ(find_setting(key.table, key.key), &key);
    }
}

TEST(Settings, Limits_ComeInPairs) {
    struct Pair {
        Form form;
        const char* good;
        const char* bad;
    };
    const Pair pairs[] = {
        {Form::group, "224.0.0.0", "223.255.255.255"},
        {Form::group, "239.255.255.255", "240.0.0.0"},
        {Form::address, "127.0.0.1", "127.0.0.1x"},
        {Form::address, "255.255.255.255", "256.0.0.1"},
        {Form::port, "1", "0"},
        {Form::port, "65535", "65536"},
        {Form::port_or_off, "0", "-1"},
        {Form::session, "UTPBENCH01", "UTPBENCH012"},
        {Form::session, "a", ""},
        {Form::participants, "QNPZKVD", "QNQ"},
        {Form::participants, "", "q"},
        {Form::interval, "-2147483648", "-2147483649"},
        {Form::interval, "2147483647", "2147483648"},
        {Form::basis_points, "10000", "10000.1"},
        {Form::basis_points, "0", "nan"},
        {Form::seed, "18446744073709551615", "18446744073709551616"},
        {Form::count, "4294967295", "4294967296"},
        {Form::count, "0", "0x10"},
        {Form::burst, "500:3", "500:0"},
        {Form::burst, "1", "0"},
        {Form::level, "3", "4"},
        {Form::path, "a", ""},
        {Form::text, "open halt", "a,b"},
        {Form::symbols, "AAPL:190.00,MSFT", "AAPL:190.00,"},
        {Form::symbols, "", ",AAPL"},
        {Form::symbols, "A:1,B:1", "A:1,A:2"},
    };
    for (const Pair& pair : pairs) {
        EXPECT_EQ(value_error(pair.form, pair.good), "") << pair.good;
        EXPECT_NE(value_error(pair.form, pair.bad), "") << pair.bad;
    }
}

TEST(Settings, LongValue_IsQuotedShortly) {
    EXPECT_LE(value_error(Form::port, std::string(100'000, '9')).size(), 120U);
    EXPECT_EQ(value_error(Form::port, "\x1b[2J"), "'?[2J' is no whole number");
}

}  // namespace
}  // namespace tessel::ctl
