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

// Host-supplied text as a log record may carry it: control characters become escapes
// (a newline as \n, ESC as \x1b), so no name can forge a record line or a terminal sequence. Other
// bytes, backslashes included, pass unchanged.
std::string escape_controls(const std::string& text);

namespace strings {

// Removes every character of `set` from the leading end (trailing == false) or from the
// trailing end (trailing == true) of `text`, in place.
void strip_characters(std::string& text, const std::string& set, bool trailing);

}  // namespace strings
}  // namespace rtbase

#endif
