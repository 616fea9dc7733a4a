#include "rtbase/strings.hpp"

namespace rtbase {

ustring to_ustring(const std::string& text)
{
    return text;
}

std::string escape_controls(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            escaped += c;
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (c == '\r') {
            escaped += "\\r";
        } else if (c == '\t') {
            escaped += "\\t";
        } else {
            escaped += {'\\', 'x', "0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
        }
    }
    return escaped;
}

namespace strings {

void strip_characters(std::string& text, const std::string& set, bool trailing)
{
    if (trailing) {
        const std::size_t last = text.find_last_not_of(set);
        text.erase(last == std::string::npos ? 0 : last + 1);
    } else {
        text.erase(0, text.find_first_not_of(set));
    }
}

}  // namespace strings
}  // namespace rtbase
