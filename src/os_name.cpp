#include "usemeter/sys/host_facts.hpp"

#include <fstream>

#include "host_facts_detail.hpp"
#include "rtbase/strings.hpp"

namespace usemeter_1_5_7 {

namespace {

const char os_release_path[] = "/etc/os-release";
const char redhat_release_path[] = "/etc/redhat-release";
const char pretty_name_key[] = "PRETTY_NAME=";
const std::size_t pretty_name_key_length = sizeof pretty_name_key - 1;
// Only blanks and double quotes: a CR-LF file keeps its "\r" and with it the closing quote.
const std::string trimmed_characters = " \"";

}  // namespace

std::string get_name_from_os_release_file(const char* path)
{
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, pretty_name_key_length, pretty_name_key) != 0)
            continue;
        std::string name = line.substr(pretty_name_key_length);
        rtbase::strings::strip_characters(name, trimmed_characters, false);
        rtbase::strings::strip_characters(name, trimmed_characters, true);
        return name;
    }
    return std::string();
}

std::string get_name_from_redhat_release_file(const char* path)
{
    std::ifstream file(path);
    std::string first_line;
    std::getline(file, first_line);
    return first_line;
}

std::string get_os_name_from(const char* os_release, const char* redhat_release)
{
    std::string name = get_name_from_os_release_file(os_release);
    if (name.empty())
        name = get_name_from_redhat_release_file(redhat_release);
    if (name.empty())
        name = "Undefined Linux Version";
    return name;
}

std::string get_name_from_etc_os_release()
{
    return get_name_from_os_release_file(os_release_path);
}

std::string get_name_from_etc_redhat_release()
{
    return get_name_from_redhat_release_file(redhat_release_path);
}

std::string get_os_name()
{
    return get_os_name_from(os_release_path, redhat_release_path);
}

}  // namespace usemeter_1_5_7
