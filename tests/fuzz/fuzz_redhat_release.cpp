// The redhat-release reader over arbitrary file content: exactly the first line, untrimmed.
#include "fuzz_scratch.hpp"
#include "host_facts_detail.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = fuzz::input_file("redhat-release", data, size);
    const std::string first_line = fuzz::text(data, size).substr(0, fuzz::text(data, size).find('\n'));
    const std::string name = usemeter_1_5_7::get_name_from_redhat_release_file(path.c_str());
    FUZZ_CHECK(name == first_line, name);

    // With no os-release the fallback chain ends in the literal only for an empty line.
    const std::string os_name = usemeter_1_5_7::get_os_name_from("/nonexistent/os-release", path.c_str());
    FUZZ_CHECK(os_name == (first_line.empty() ? std::string("Undefined Linux Version") : first_line), os_name);
    return 0;
}
