#include "rtbase/strings.hpp"

namespace rtbase {

ustring to_ustring(const std::string& text)
{
    return text;
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
