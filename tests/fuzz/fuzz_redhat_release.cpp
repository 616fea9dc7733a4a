// The redhat-release reader over arbitrary file content: exactly the first line, untrimmed.
#include <cstdint>
#include <string>

#include "fuzz_scratch.hpp"
#include "host_facts_detail.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::scratch_t scratch;
    static const std::string path = scratch.path("redhat-release");
    fuzz::write_file(path, data, size);

    const std::string content(reinterpret_cast<const char*>(data), size);
    const std::string first_line = content.substr(0, content.find('\n'));
    const std::string name = usemeter_1_5_7::get_name_from_redhat_release_file(path.c_str());
    FUZZ_CHECK(name == first_line, name.c_str());

    // With no os-release the fallback chain ends in the literal only for an empty line.
    const std::string os_name = usemeter_1_5_7::get_os_name_from("/nonexistent/os-release", path.c_str());
    FUZZ_CHECK(os_name == (first_line.empty() ? std::string("Undefined Linux Version") : first_line),
               os_name.c_str());
    return 0;
}
