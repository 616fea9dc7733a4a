// rtbase string helpers.
#ifndef USEMETER_PLATFORM_RTBASE_STRINGS_HPP
#define USEMETER_PLATFORM_RTBASE_STRINGS_HPP

#include <string>

namespace rtbase {

// The runtime's UTF-8 string type.
typedef std::string ustring;

// Converts bytes read from a file or a tool to the runtime's UTF-8 string form; bytes
// are taken as UTF-8 already, so the text passes unchanged.
ustring to_ustring(const std::string& text);

namespace strings {

// Removes every character of `set` from the leading end (trailing == false) or from the
// trailing end (trailing == true) of `text`, in place.
void strip_characters(std::string& text, const std::string& set, bool trailing);

}  // namespace strings
}  // namespace rtbase

#endif
