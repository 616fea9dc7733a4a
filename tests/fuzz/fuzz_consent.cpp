// The consent-file reader over arbitrary file content: consent is given exactly when the
// first whitespace-delimited token is "1"; every other content, the empty file included,
// is a refusal. The environment is cleared so that the file alone decides.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz_scratch.hpp"
#include "network_status_detail.hpp"
#include "usemeter/statistic_impl.hpp"

namespace {

// The policy core is abstract; the reporting side is irrelevant to consent.
class consent_probe_t : public usemeter_1_5_7::statistic_impl_t {
public:
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
    std::size_t start = 0;
    while (start < content.size() && std::isspace(static_cast<unsigned char>(content[start])))
        ++start;
    std::size_t end = start;
    while (end < content.size() && !std::isspace(static_cast<unsigned char>(content[end])))
        ++end;
    return content.compare(start, end - start, "1") == 0 ? 1 : 2;
}

struct setup_t {
    fuzz::scratch_t home;
    std::unique_ptr<consent_probe_t> probe;

    setup_t()
    {
        ::setenv("HOME", home.dir().c_str(), 1);
        for (const char* name : {"NORVEL_STATISTICS_DISABLE", "NORVEL_DONOTSEND_FEEDBACK",
                                 "NORVEL_DISABLE_FEEDBACK", "NORVEL_FORCE_FEEDBACK"})
            ::unsetenv(name);
        ::setenv("NORVEL_FORCE_UUID", "0F1E2D3C-4B5A-4978-8796-A5B4C3D2E1F0", 1);
        // The enablement decision made in the constructor resolves the corporate name; a
        // numeric address keeps that off the network.
        usemeter_1_5_7::detail::corporate_node_name = "127.0.0.1";
        probe.reset(new consent_probe_t);
        FUZZ_CHECK(!probe->optin_path().empty(), "no consent file path under the scratch HOME");
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static setup_t setup;
    fuzz::write_file(setup.probe->optin_path(), data, size);

    const std::string content(reinterpret_cast<const char*>(data), size);
    const int consent = setup.probe->get_user_consent();
    FUZZ_CHECK(consent == reference_consent(content), consent == 1 ? "granted" : "not granted");
    return 0;
}
