#include "basekit/variant_bag.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <pugixml.hpp>

#include "host/host_services.hpp"

namespace basekit {

// ---- variant_t -------------------------------------------------------------------------

variant_t variant_t::blob(const std::string& bytes)
{
    variant_t value;
    value.kind_ = vt_blob;
    value.text_ = bytes;
    return value;
}

bool variant_t::is_numeric() const
{
    return kind_ == vt_int || kind_ == vt_int64 || kind_ == vt_uint64 || kind_ == vt_double;
}

template <> bool variant_t::can_get<const char*>() const { return kind_ == vt_string; }
template <> bool variant_t::can_get<std::string>() const { return kind_ == vt_string; }
template <> bool variant_t::can_get<std::int32_t>() const { return is_numeric(); }
template <> bool variant_t::can_get<std::int64_t>() const { return is_numeric(); }
template <> bool variant_t::can_get<std::uint64_t>() const { return is_numeric(); }
template <> bool variant_t::can_get<double>() const { return is_numeric(); }
template <> bool variant_t::can_get<bool>() const { return kind_ == vt_bool; }

template <> const char* variant_t::get<const char*>() const { return text_.c_str(); }
template <> std::string variant_t::get<std::string>() const { return text_; }
template <> bool variant_t::get<bool>() const { return kind_ == vt_bool && int_ != 0; }

template <> std::int64_t variant_t::get<std::int64_t>() const
{
    switch (kind_) {
    case vt_int:
    case vt_int64:
        return int_;
    case vt_uint64:
        return static_cast<std::int64_t>(uint_);
    case vt_double:
        // Out-of-range doubles would be undefined to convert; clamp them.
        if (!(double_ > -9.2e18))
            return double_ != double_ ? 0 : INT64_MIN;
        if (double_ > 9.2e18)
            return INT64_MAX;
        return static_cast<std::int64_t>(double_);
    default:
        return 0;
    }
}

template <> std::int32_t variant_t::get<std::int32_t>() const
{
    return static_cast<std::int32_t>(get<std::int64_t>());
}

template <> std::uint64_t variant_t::get<std::uint64_t>() const
{
    return kind_ == vt_uint64 ? uint_ : static_cast<std::uint64_t>(get<std::int64_t>());
}

template <> double variant_t::get<double>() const
{
    if (kind_ == vt_double)
        return double_;
    return kind_ == vt_uint64 ? static_cast<double>(uint_) : static_cast<double>(get<std::int64_t>());
}

// ---- variant_bag_t ---------------------------------------------------------------------

variant_bag_t::iterator_t::iterator_t(const std::vector<entry_t>* entries, std::string name)
    : entries_(entries), name_(std::move(name))
{
    skip_to_match();
}

void variant_bag_t::iterator_t::next()
{
    if (!at_end()) {
        ++index_;
        skip_to_match();
    }
}

void variant_bag_t::iterator_t::skip_to_match()
{
    while (index_ < entries_->size() &&
           ((*entries_)[index_].name != name_ || !(*entries_)[index_].bag))
        ++index_;
}

void variant_bag_t::put(const std::string& name, const variant_t& value)
{
    for (entry_t& entry : entries_) {
        if (entry.name == name && !entry.bag) {
            entry.value = value;
            return;
        }
    }
    add(name, value);
}

void variant_bag_t::add(const std::string& name, const variant_t& value)
{
    entries_.push_back(entry_t{name, value, nullptr});
}

variant_bag_t& variant_bag_t::add_bag(const std::string& name)
{
    entries_.push_back(entry_t{name, variant_t(), std::make_shared<variant_bag_t>()});
    return *entries_.back().bag;
}

variant_t variant_bag_t::get_variant(const std::string& name, const variant_t& fallback) const
{
    for (const entry_t& entry : entries_)
        if (entry.name == name && !entry.bag)
            return entry.value;
    return fallback;
}

variant_bag_t::iterator_t variant_bag_t::begin_by_name(const std::string& name) const
{
    return iterator_t(&entries_, name);
}

// ---- XML form --------------------------------------------------------------------------

namespace {

// Deeper bags than this load as empty values, so hostile files cannot exhaust the stack.
const int max_bag_depth = 64;

bool parse_signed(const char* text, std::int64_t min, std::int64_t max, std::int64_t* out)
{
    if (*text == '\0')
        return false;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max)
        return false;
    *out = value;
    return true;
}

bool parse_unsigned(const char* text, std::uint64_t* out)
{
    if (*text == '\0' || *text == '-')
        return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    *out = value;
    return true;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool parse_blob(const std::string& hex, std::string* out)
{
    if (hex.size() % 2 != 0)
        return false;
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = hex_digit(hex[i]), low = hex_digit(hex[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes.push_back(static_cast<char>(high * 16 + low));
    }
    *out = bytes;
    return true;
}

variant_t value_from_xml(const pugi::xml_node& node)
{
    const std::string type = node.attribute("type").value();
    if (type == "string")
        return variant_t(std::string(node.child_value()));
    // Hand-edited files often pad numbers with blanks or line breaks; accept that.
    std::string trimmed = node.child_value();
    trimmed.erase(0, trimmed.find_first_not_of(" \t\r\n"));
    trimmed.erase(trimmed.find_last_not_of(" \t\r\n") + 1);
    const char* text = trimmed.c_str();
    std::int64_t signed_value = 0;
    std::uint64_t unsigned_value = 0;
    if (type == "int" && parse_signed(text, INT32_MIN, INT32_MAX, &signed_value))
        return variant_t(static_cast<std::int32_t>(signed_value));
    if (type == "int64" && parse_signed(text, INT64_MIN, INT64_MAX, &signed_value))
        return variant_t(signed_value);
    if (type == "uint64" && parse_unsigned(text, &unsigned_value))
        return variant_t(unsigned_value);
    if (type == "double" && *text != '\0') {
        char* end = nullptr;
        const double value = std::strtod(text, &end);
        if (*end == '\0')
            return variant_t(value);
    }
    if (type == "bool" && (std::string(text) == "true" || std::string(text) == "false"))
        return variant_t(std::string(text) == "true");
    std::string bytes;
    if (type == "blob" && parse_blob(text, &bytes))
        return variant_t::blob(bytes);
    return variant_t();
}

void bag_from_xml(const pugi::xml_node& element, variant_bag_t& bag, int depth)
{
    for (pugi::xml_node child = element.first_child(); child; child = child.next_sibling()) {
        if (child.type() != pugi::node_element)
            continue;
        if (std::string(child.attribute("type").value()) == "bag" && depth < max_bag_depth)
            bag_from_xml(child, bag.add_bag(child.name()), depth + 1);
        else
            bag.add(child.name(), value_from_xml(child));
    }
}

int load_document(variant_bag_t& bag, const pugi::xml_parse_result& parsed,
                  const pugi::xml_document& document, const std::string& root)
{
    bag.clear();
    if (!parsed)
        return 0;
    const pugi::xml_node root_element = document.document_element();
    if (!root_element || root != root_element.name())
        return 0;
    bag_from_xml(root_element, bag, 1);
    return 1;
}

std::string text_of(const variant_t& value)
{
    char buffer[64];
    switch (value.kind()) {
    case variant_t::vt_string:
        return value.bytes();
    case variant_t::vt_int:
    case variant_t::vt_int64:
        std::snprintf(buffer, sizeof buffer, "%" PRId64, value.get<std::int64_t>());
        return buffer;
    case variant_t::vt_uint64:
        std::snprintf(buffer, sizeof buffer, "%" PRIu64, value.get<std::uint64_t>());
        return buffer;
    case variant_t::vt_double:
        std::snprintf(buffer, sizeof buffer, "%.17g", value.get<double>());
        return buffer;
    case variant_t::vt_bool:
        return value.get<bool>() ? "true" : "false";
    case variant_t::vt_blob: {
        static const char digits[] = "0123456789ABCDEF";
        std::string hex;
        for (unsigned char c : value.bytes()) {
            hex.push_back(digits[c >> 4]);
            hex.push_back(digits[c & 15]);
        }
        return hex;
    }
    default:
        return std::string();
    }
}

const char* type_of(const variant_t& value)
{
    switch (value.kind()) {
    case variant_t::vt_string: return "string";
    case variant_t::vt_int: return "int";
    case variant_t::vt_int64: return "int64";
    case variant_t::vt_uint64: return "uint64";
    case variant_t::vt_double: return "double";
    case variant_t::vt_bool: return "bool";
    case variant_t::vt_blob: return "blob";
    default: return nullptr;
    }
}

void bag_to_xml(const variant_bag_t& bag, pugi::xml_node element)
{
    for (const variant_bag_t::entry_t& entry : bag.entries()) {
        pugi::xml_node child = element.append_child(entry.name.c_str());
        if (entry.bag) {
            child.append_attribute("type") = "bag";
            bag_to_xml(*entry.bag, child);
            continue;
        }
        if (const char* type = type_of(entry.value))
            child.append_attribute("type") = type;
        const std::string text = text_of(entry.value);
        if (!text.empty())
            child.text().set(text.c_str());
    }
}

}  // namespace

int parse_variant_bag(variant_bag_t& bag, const std::string& xml, const std::string& root)
{
    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_buffer(xml.data(), xml.size());
    return load_document(bag, parsed, document, root);
}

int load_variant_bag2(variant_bag_t& bag, const path_t& path, const std::string& root, bool)
{
    // pugixml sizes its buffer by seeking to the end, which on a directory asks for an
    // absurd allocation; only regular files can hold a bag.
    struct stat info;
    if (::stat(path.as_string(false).c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        bag.clear();
        return 0;
    }
    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_file(path.as_string(false).c_str());
    return load_document(bag, parsed, document, root);
}

int save_variant_bag2(const variant_bag_t& bag, const path_t& path, const std::string& root)
{
    try {
        pugi::xml_document document;
        pugi::xml_node declaration = document.append_child(pugi::node_declaration);
        declaration.append_attribute("version") = "1.0";
        declaration.append_attribute("encoding") = "UTF-8";
        bag_to_xml(bag, document.append_child(root.c_str()));
        std::ostringstream text;
        document.save(text, "  ", pugi::format_default, pugi::encoding_utf8);
        return host::services().replace_file(path.as_string(false), text.str()) ? 1 : 0;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return 0;
    }
}

}  // namespace basekit
