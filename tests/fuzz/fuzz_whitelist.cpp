// The whitelist lookup and the event body. Input: whitelist entries, one per line; the last
// line is the feature name reported. Each input gets a whitelist file and a backend of its
// own (the whitelist is read only at construction). The host refuses every socket, so the one
// body that is posted fails at once and the connector drops every later one without touching
// the network.
#include <set>
#include <vector>

#include "../support/locations_double.hpp"
#include "basekit/variant_bag.hpp"
#include "fuzz_scratch.hpp"
#include "host/host_services.hpp"
#include "usemeter/sys/host_facts.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

using usemeter_1_5_7::statistic_impl_ga_t;

namespace {

struct no_sockets_t : host::host_services_t {
    int open_socket(int, int, int) override { return -1; }
};

struct setup_t {
    no_sockets_t no_sockets;
    fuzz::scratch_t scratch;
    usemeter_test::locations_double_t locations;
    std::string whitelist_path = scratch.path("statistic/enabled_stat_events.xml");
    std::string prefix;

    setup_t()
    {
        boost::filesystem::create_directories(scratch.path("statistic"));
        locations.data_dir = scratch.dir();
        fuzz::policy_environment(scratch);
        ::setenv("NORVEL_FORCE_FEEDBACK", "1", 1);
        // Both routes go to a loopback proxy (the direct one too: libcurl honours http_proxy
        // itself), so no name is resolved, and the host refuses the socket.
        ::setenv("http_proxy", "http://127.0.0.1:9", 1);
        ::unsetenv("no_proxy");
        ::unsetenv("NO_PROXY");
        host::install(&no_sockets);

        prefix = std::string("v=1&tid=UA-12345678-42&cid=") + std::getenv("NORVEL_FORCE_UUID") +
                 "&an=fuzz&av=1.0&cd1=posix&cd2=" + encode(usemeter_1_5_7::get_os_name());
    }

    // libcurl's escaping as the wire format states it; the text ends at a NUL byte, as a C
    // string does.
    static std::string encode(const std::string& text)
    {
        std::string out;
        for (unsigned char c : text.substr(0, text.find('\0')))
            if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                c == '.' || c == '_' || c == '~')
                out += static_cast<char>(c);
            else
                out += {'%', "0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
        return out;
    }
};

// The longest whitelisted w with name == w or name starting with w + "."; else the plain
// tool-run rule.
bool reference_event(const std::set<std::string>& whitelist, const std::string& name,
                     std::string& category, std::string& label)
{
    const std::string* best = nullptr;
    for (const std::string& w : whitelist) {
        const bool matches = name == w || (name.size() > w.size() && name.compare(0, w.size(), w) == 0 &&
                                           name[w.size()] == '.');
        if (matches && (!best || w.size() > best->size()))
            best = &w;
    }
    if (best) {
        category = *best;
        label = name.size() > best->size() ? name.substr(best->size() + 1) : std::string();
        return true;
    }
    if (name.compare(0, 4, "run.") == 0 && name.find('.', 4) == std::string::npos) {
        category = "run";
        label = name.substr(4);
        return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static setup_t setup;

    const std::string input = fuzz::text(data, size);
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = input.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(input.substr(start, end - start));
    const std::string name = input.substr(start);

    basekit::variant_bag_t whitelist;
    for (const std::string& entry : lines)
        whitelist.add_bag("event").put("name", basekit::variant_t(entry));
    FUZZ_CHECK(basekit::save_variant_bag2(whitelist, basekit::path_t(setup.whitelist_path), "bag") == 1,
               "cannot write the whitelist");

    statistic_impl_ga_t backend("fuzz", "1.0");
    FUZZ_CHECK(backend.is_ready() && backend.is_collection_enabled(), "the backend would drop everything");

    std::string category, label, expected_category, expected_label;
    const bool resolved = backend.resolve_event(name, category, label);
    const bool expected = reference_event(backend.whitelisted_events(), name, expected_category, expected_label);
    FUZZ_CHECK(resolved == expected, resolved ? "resolved a name that must be dropped" : "dropped a name");
    if (resolved) {
        FUZZ_CHECK(category == expected_category && label == expected_label, category + " / " + label);
        const std::string body = backend.build_event_body(category, label);
        const std::string head = setup.prefix + "&t=event&ec=" + setup_t::encode(category) +
                                 (label.empty() ? std::string() : "&el=" + setup_t::encode(label)) + "&cd3=";
        FUZZ_CHECK(body == head + "y" || body == head + "n", body);
    }

    backend.notify_feature_usage_ex(name, size);
    return 0;
}
