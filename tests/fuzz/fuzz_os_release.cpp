// The os-release reader over arbitrary file content, against a plain reading of its rule:
// the first line that starts with PRETTY_NAME=, blanks and double quotes trimmed off both
// ends, nothing else touched.
#include <cstdint>
#include <string>

#include "fuzz_scratch.hpp"
#include "host_facts_detail.hpp"

namespace {

std::string reference_pretty_name(const std::string& content)
{
    const std::string key = "PRETTY_NAME=";
    std::size_t start = 0;
    while (start < content.size()) {
        std::size_t end = content.find('\n', start);
        if (end == std::string::npos)
            end = content.size();
        const std::string line = content.substr(start, end - start);
        if (line.compare(0, key.size(), key) == 0) {
            std::string value = line.substr(key.size());
            const std::size_t first = value.find_first_not_of(" \"");
            if (first == std::string::npos)
                return std::string();
            value.erase(0, first);
            value.erase(value.find_last_not_of(" \"") + 1);
            return value;
        }
        start = end + 1;
    }
    return std::string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::scratch_t scratch;
    static const std::string path = scratch.path("os-release");
    fuzz::write_file(path, data, size);

    const std::string content(reinterpret_cast<const char*>(data), size);
    const std::string name = usemeter_1_5_7::get_name_from_os_release_file(path.c_str());
    FUZZ_CHECK(name == reference_pretty_name(content), name.c_str());

    const std::string os_name = usemeter_1_5_7::get_os_name_from(path.c_str(), "/nonexistent/redhat-release");
    FUZZ_CHECK(os_name == (name.empty() ? std::string("Undefined Linux Version") : name), os_name.c_str());
    return 0;
}
