#include "usemeter/path.hpp"

#include <sys/stat.h>

namespace basekit {

path_t& path_t::append(const std::string& component)
{
    if (text_.empty()) {
        text_ = component;
    } else if (text_.back() == '/' || component.empty() || component.front() == '/') {
        if (text_.back() == '/' && !component.empty() && component.front() == '/')
            text_ += component.substr(1);
        else
            text_ += component;
    } else {
        text_ += '/';
        text_ += component;
    }
    return *this;
}

path_t& path_t::change_ext(const std::string& ext_without_dot)
{
    const std::size_t name_start = text_.rfind('/') == std::string::npos ? 0 : text_.rfind('/') + 1;
    const std::size_t dot = text_.rfind('.');
    // A leading dot names a hidden file, not an extension.
    if (dot != std::string::npos && dot > name_start)
        text_.erase(dot);
    text_ += '.';
    text_ += ext_without_dot;
    return *this;
}

bool path_t::is_exists() const
{
    struct stat info;
    return !text_.empty() && ::stat(text_.c_str(), &info) == 0;
}

std::string path_t::as_string(bool) const
{
    return text_;
}

}  // namespace basekit
