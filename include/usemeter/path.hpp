// basekit::path_t: the platform's path value, as the public headers use it.
#ifndef USEMETER_PATH_HPP
#define USEMETER_PATH_HPP

#include <string>

#include "usemeter/export.h"

namespace basekit {

class USEMETER_API path_t {
public:
    path_t() = default;
    path_t(const std::string& text) : text_(text) {}
    path_t(const char* text) : text_(text ? text : "") {}

    // Joins one more component with "/" (no separator is doubled).
    path_t& append(const std::string& component);
    // Replaces the extension of the last component ("a/b.xml" -> "a/b.lock");
    // a name without one gets ".ext" appended.
    path_t& change_ext(const std::string& ext_without_dot);

    bool empty() const { return text_.empty(); }
    bool is_exists() const;
    // The flag selects a native form in the platform library; on POSIX both forms agree.
    std::string as_string(bool native = false) const;

private:
    std::string text_;
};

}  // namespace basekit

#endif
