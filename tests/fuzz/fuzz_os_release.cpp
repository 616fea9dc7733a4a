// The os-release reader over arbitrary file content, against a plain reading of its rule:
// the first line that starts with PRETTY_NAME=, blanks and double quotes trimmed off both
// ends, nothing else touched.
#include <algorithm>

#include "fuzz_scratch.hpp"
#include "host_facts_detail.hpp"

namespace {

std::string reference_pretty_name(const std::string& content)
{
    const std::string key = "PRETTY_NAME=";
    for (std::size_t start = 0, end; start < content.size(); start = end + 1) {
        end = std::min(content.find('\n', start), content.size());
        if (content.compare(start, key.size(), key) != 0 || end - start < key.size())
            continue;
        const std::string value = content.substr(start + key.size(), end - start - key.size());
        const std::size_t first = value.find_first_not_of(" \"");
        return first == std::string::npos ? std::string()
                                          : value.substr(first, value.find_last_not_of(" \"") + 1 - first);
    }
    return std::string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = fuzz::input_file("os-release", data, size);
    const std::string name = usemeter_1_5_7::get_name_from_os_release_file(path.c_str());
    FUZZ_CHECK(name == reference_pretty_name(fuzz::text(data, size)), name);

    const std::string os_name = usemeter_1_5_7::get_os_name_from(path.c_str(), "/nonexistent/redhat-release");
    FUZZ_CHECK(os_name == (name.empty() ? std::string("Undefined Linux Version") : name), os_name);
    return 0;
}
