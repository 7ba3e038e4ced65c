// The results of a run, whatever their bytes: what is read is written and read again as the same, and every
// report can be made of it.

#include "certify/certificate.h"
#include "certify/reports.h"
#include "fuzz_check.h"

#include <cstddef>
#include <string>
#include <string_view>

using tessel::certify::Certificate;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    Certificate certificate;
    std::string error;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const bool good = tessel::certify::parse_certificate(text, certificate, error);
    tessel::fuzz::check(good == error.empty(), "a reason exactly when it is refused");
    if (!good) {
        return 0;
    }
    const std::string written = tessel::certify::certificate_json(certificate);
    Certificate again;
    tessel::fuzz::check(tessel::certify::parse_certificate(written, again, error), "what is written is read");
    tessel::fuzz::check(tessel::certify::certificate_json(again) == written, "and is the same");
    certificate.causes = tessel::certify::likely_causes(certificate);
    const std::string page = tessel::certify::html_report(certificate);
    tessel::fuzz::check(page.find("<script src") == std::string::npos, "a page that loads nothing");
    static_cast<void>(tessel::certify::junit_report(certificate));
    static_cast<void>(tessel::certify::markdown_report(certificate));
    static_cast<void>(tessel::certify::text_report(certificate, true));
    return 0;
}
