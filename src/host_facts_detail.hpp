// Internal seams of the host-fact units: the same logic over files named by the caller,
// so tests can feed crafted release files and random sources.
#ifndef USEMETER_SRC_HOST_FACTS_DETAIL_HPP
#define USEMETER_SRC_HOST_FACTS_DETAIL_HPP

#include <string>

namespace usemeter_1_5_7 {

// generate_uuid4() with another source than /dev/urandom.
std::string generate_uuid4_from(const char* random_source);

// get_name_from_etc_os_release() / get_name_from_etc_redhat_release() on other files.
std::string get_name_from_os_release_file(const char* path);
std::string get_name_from_redhat_release_file(const char* path);
// get_os_name() over the two given files.
std::string get_os_name_from(const char* os_release, const char* redhat_release);

}  // namespace usemeter_1_5_7

#endif
