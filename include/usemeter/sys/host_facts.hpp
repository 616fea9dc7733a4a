// Advanced interface: for tools and embedders that need the library's internals; hosts use the
// public headers one level up.
// Facts about the host: random identifiers and the distribution's name.
#ifndef USEMETER_HOST_FACTS_HPP
#define USEMETER_HOST_FACTS_HPP

#include <string>

#include "usemeter/export.h"

namespace usemeter_1_5_7 {

// 16 bytes from /dev/urandom in the form XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX
// (upper case, raw random bits: no version or variant bits are set); "" without a source.
USEMETER_API std::string generate_uuid4();
// Formats the 16 bytes at the pointer in the same grouped form.
USEMETER_API std::string uuid_bytes_to_str(void* bytes);

// The distribution's name: PRETTY_NAME of /etc/os-release, else the first line of
// /etc/redhat-release, else "Undefined Linux Version".
USEMETER_API std::string get_os_name();
USEMETER_API std::string get_name_from_etc_os_release();
USEMETER_API std::string get_name_from_etc_redhat_release();

}  // namespace usemeter_1_5_7

#endif
