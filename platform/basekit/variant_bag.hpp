// basekit variant bags: trees of named, typed values kept in XML files.
//
// On disk (UTF-8):
//   <bag>
//     <UUID type="string">...</UUID>
//     <item type="bag"><Y type="int">2026</Y>...</item>
//   </bag>
// Each child element is one entry; its "type" says what it holds. Several entries may
// share a name; their order is kept.
#ifndef USEMETER_PLATFORM_BASEKIT_VARIANT_BAG_HPP
#define USEMETER_PLATFORM_BASEKIT_VARIANT_BAG_HPP

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "usemeter/path.hpp"

namespace basekit {

class variant_t {
public:
    enum kind_t { vt_empty, vt_string, vt_int, vt_int64, vt_uint64, vt_double, vt_bool, vt_blob };

    variant_t() = default;
    variant_t(const char* text) : kind_(vt_string), text_(text ? text : "") {}
    variant_t(const std::string& text) : kind_(vt_string), text_(text) {}
    variant_t(std::int32_t value) : kind_(vt_int), int_(value) {}
    variant_t(std::int64_t value) : kind_(vt_int64), int_(value) {}
    variant_t(std::uint64_t value) : kind_(vt_uint64), uint_(value) {}
    variant_t(double value) : kind_(vt_double), double_(value) {}
    variant_t(bool value) : kind_(vt_bool), int_(value) {}
    static variant_t blob(const std::string& bytes);

    kind_t kind() const { return kind_; }
    bool empty() const { return kind_ == vt_empty; }
    bool is_numeric() const;

    // Supported T: const char*, std::string (strings), std::int32_t, std::int64_t,
    // std::uint64_t, double (numeric kinds), bool.
    template <class T> bool can_get() const;
    // Only meaningful when can_get<T>() is true; otherwise a zero value.
    template <class T> T get() const;

    // Raw bytes of a string or blob.
    const std::string& bytes() const { return text_; }

private:
    kind_t kind_ = vt_empty;
    std::string text_;
    std::int64_t int_ = 0;
    std::uint64_t uint_ = 0;
    double double_ = 0;
};

class variant_bag_t {
public:
    struct entry_t {
        std::string name;
        variant_t value;                       // when bag is null
        std::shared_ptr<variant_bag_t> bag;    // a child bag
    };

    // Visits the entries of one name that hold child bags, in order.
    class iterator_t {
    public:
        const variant_bag_t& get_value() const { return *(*entries_)[index_].bag; }
        void next();
        bool at_end() const { return index_ >= entries_->size(); }

    private:
        friend class variant_bag_t;
        iterator_t(const std::vector<entry_t>* entries, std::string name);
        void skip_to_match();

        const std::vector<entry_t>* entries_;
        std::string name_;
        std::size_t index_ = 0;
    };

    // Replaces the first value of that name, or appends one.
    void put(const std::string& name, const variant_t& value);
    // Appends a value even when the name is taken.
    void add(const std::string& name, const variant_t& value);
    // Appends an empty child bag and returns it.
    variant_bag_t& add_bag(const std::string& name);

    // The first value of that name, or `fallback`.
    variant_t get_variant(const std::string& name, const variant_t& fallback) const;
    iterator_t begin_by_name(const std::string& name) const;

    const std::vector<entry_t>& entries() const { return entries_; }
    void clear() { entries_.clear(); }

private:
    std::vector<entry_t> entries_;
};

// 1 when `path` is well-formed XML whose root element is `root`; the bag then holds its
// content. Any other outcome returns 0 and leaves the bag empty; never throws for bad
// input. The flag is accepted for the platform's signature and has no effect here.
int load_variant_bag2(variant_bag_t& bag, const path_t& path, const std::string& root, bool flag);

// The same as load_variant_bag2 for XML text already in memory.
int parse_variant_bag(variant_bag_t& bag, const std::string& xml, const std::string& root);

// Writes the bag as a whole new file (temporary file in the same directory, then
// rename), so readers see the old or the new file, never a mix. 1 on success, else 0.
int save_variant_bag2(const variant_bag_t& bag, const path_t& path, const std::string& root);

}  // namespace basekit

#endif
