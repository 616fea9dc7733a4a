// The consent-file reader over arbitrary file content: consent is given exactly when the
// first whitespace-delimited token is "1"; every other content, the empty file included,
// is a refusal. The environment is cleared so that the file alone decides.
#include <cctype>
#include <memory>

#include "fuzz_scratch.hpp"
#include "usemeter/sys/statistic_impl.hpp"

namespace {

// The policy core is abstract; the reporting side is irrelevant to consent.
struct consent_probe_t : usemeter_1_5_7::statistic_impl_t {
    consent_probe_t() : statistic_impl_t("fuzz", "1.0") {}
    void notify_feature_usage_ex(const std::string&, unsigned long long) override {}
    void write_range_metric(const std::string&, unsigned long long, unsigned long long, unsigned char,
                            unsigned long long) override {}
    void write_log_range_metric(const std::string&, unsigned long long, unsigned char) override {}
    void notify_send_data(bool) override {}
    bool flush() override { return true; }
    const std::string& optin_path() const { return optin_path_; }
};

int reference_consent(const std::string& content)
{
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    std::size_t start = 0, end;
    while (start < content.size() && blank(content[start]))
        ++start;
    for (end = start; end < content.size() && !blank(content[end]);)
        ++end;
    return content.compare(start, end - start, "1") == 0 ? 1 : 2;
}

struct setup_t {
    fuzz::scratch_t home;
    std::unique_ptr<consent_probe_t> probe;

    setup_t()
    {
        fuzz::policy_environment(home);
        probe = std::make_unique<consent_probe_t>();
        FUZZ_CHECK(!probe->optin_path().empty(), "no consent file path under the scratch HOME");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static setup_t setup;
    fuzz::write_file(setup.probe->optin_path(), data, size);
    const int consent = setup.probe->get_user_consent();
    FUZZ_CHECK(consent == reference_consent(fuzz::text(data, size)), consent == 1 ? "granted" : "not granted");
    return 0;
}
