#include "certify/certificate.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tessel::certify {
namespace {

Certificate whole_certificate() {
    Certificate certificate;
    certificate.tool = "tessel-certify 1.0.0";
    certificate.handlers = {{"a", "./a"}, {"b", "./b"}};
    certificate.seed = 18'446'744'073'709'551'615ULL;
    certificate.about = {"line"};
    CaseResult failed;
    failed.handler = "a";
    failed.name = "loss/x";
    failed.group = "loss";
    failed.title = "T";
    failed.verdict = Verdict::fail;
    failed.reason = "1 line missing";
    failed.seconds = 1.5;
    failed.seed = 7;
    failed.command = "tessel-certify";
    failed.folder = "out/loss/x";
    failed.truth_lines = 5;
    failed.missing = 1;
    failed.findings = {{"missing", "", "AAPL", "short quote", {{"nbbo_indicator", "4"}}, 3}};
    failed.examples = {{4, "missing", "AAPL", "", "{}", "", "3151", "{}", true}};
    failed.log_tail = "log";
    certificate.cases.push_back(failed);
    CaseResult load;
    load.handler = "b";
    load.name = "load/x";
    load.verdict = Verdict::pass;
    load.curve = {{1000, 0}, {5000, 12}};
    load.highest_rate = 1000;
    certificate.cases.push_back(load);
    certificate.causes = {{"a cause", {"loss/x"}}};
    return certificate;
}

TEST(CertificateJson, WhatIsWritten_IsReadBackTheSame) {
    const std::string text = certificate_json(whole_certificate());
    Certificate again;
    std::string error;
    ASSERT_TRUE(parse_certificate(text, again, error)) << error;
    EXPECT_EQ(certificate_json(again), text);
    EXPECT_EQ(again.cases[0].findings[0].facts[0].second, "4");
    EXPECT_TRUE(again.cases[0].examples[0].in_gap);
    EXPECT_EQ(again.cases[1].curve[1].missing, 12U);
}

TEST(CertificateJson, ItsMembers_AreThoseThatScriptsRelyOn) {
    const auto json = nlohmann::json::parse(certificate_json(whole_certificate()));
    EXPECT_EQ(json["handler"], "./a");
    EXPECT_EQ(json["cases"][0]["verdict"], "fail");
    EXPECT_FALSE(json["cases"][0].contains("curve"));
    EXPECT_EQ(json["cases"][1]["curve"], nlohmann::json::parse("[[1000,0],[5000,12]]"));
    EXPECT_EQ(json["cases"][1]["highest_rate"], 1000);
    EXPECT_EQ(json["causes"], nlohmann::json::parse(R"([{"text":"a cause","cases":["loss/x"]}])"));
    EXPECT_EQ(json["totals"], nlohmann::json::parse(R"({"pass":1,"fail":1,"error":0,"skipped":0})"));
}

TEST(CertificateJson, BytesThatAreNoText_AreReplaced) {
    Certificate certificate = whole_certificate();
    certificate.cases[0].log_tail = std::string("\xff\x00\x1b[31m", 7);
    Certificate again;
    std::string error;
    ASSERT_TRUE(parse_certificate(certificate_json(certificate), again, error)) << error;
    EXPECT_EQ(again.cases[0].log_tail, std::string("\xef\xbf\xbd\x00\x1b[31m", 9));
}

TEST(CertificateJson, AnythingElse_IsRefusedWithAReason) {
    const std::string text = certificate_json(whole_certificate());
    const auto without = [&](const std::string& part, const std::string& instead) {
        std::string changed = text;
        changed.replace(changed.find(part), part.size(), instead);
        return changed;
    };
    for (const std::string& bad :
         {std::string(), std::string("[]"), std::string("{}"), text.substr(0, text.size() / 2),
          without("\"fail\"", "\"lost\""), without("\"seed\": 7", "\"seed\": -7"),
          without("\"cases\": [", "\"cases\": 5, \"x\": ["),
          without("\"seconds\": 1.5", "\"seconds\": \"1.5\"")}) {
        Certificate out;
        std::string error;
        EXPECT_FALSE(parse_certificate(bad, out, error)) << bad;
        EXPECT_NE(error, "") << bad;
    }
}

}  // namespace
}  // namespace tessel::certify
