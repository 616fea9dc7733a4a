// prodenv: a product-locations service with fixed answers, installed for its lifetime. The
// usemeter command stands in for a host product with it, and tests use it as a host would.
#ifndef USEMETER_PLATFORM_FIXED_LOCATIONS_HPP
#define USEMETER_PLATFORM_FIXED_LOCATIONS_HPP

#include <string>

#include "usemeter/product_locations.hpp"

namespace prodenv {

class fixed_locations_t : public IProductLocations {
public:
    std::string product_dir = "trovix";
    std::string data_dir;  // empty: no data directory (null to the library)
    std::string temp_dir;
    int version[3] = {2015, 3, 1};
    bool quiet_lookup = false;

    fixed_locations_t() { set(this); }
    ~fixed_locations_t() override { set(nullptr); }
    fixed_locations_t(const fixed_locations_t&) = delete;
    fixed_locations_t& operator=(const fixed_locations_t&) = delete;

    void getProductVersion(int& major, int& minor, int& update) const override
    {
        major = version[0];
        minor = version[1];
        update = version[2];
    }
    const char* getProductDirName() const override { return product_dir.c_str(); }
    const char* getDataDir() const override { return data_dir.empty() ? nullptr : data_dir.c_str(); }
    basekit::path_t getTempDir() const override { return temp_dir; }
    bool isToolLookupQuiet() const override { return quiet_lookup; }
};

}  // namespace prodenv

#endif
