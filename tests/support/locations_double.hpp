// A product-locations service for tests: fixed answers, installed for the object's lifetime.
#ifndef USEMETER_TESTS_LOCATIONS_DOUBLE_HPP
#define USEMETER_TESTS_LOCATIONS_DOUBLE_HPP

#include <string>

#include "usemeter/product_locations.hpp"

namespace usemeter_test {

class locations_double_t : public prodenv::IProductLocations {
public:
    std::string product_dir = "trovix";
    std::string data_dir;
    std::string temp_dir;
    int version[3] = {2015, 3, 1};
    bool quiet_lookup = false;

    locations_double_t() { prodenv::IProductLocations::set(this); }
    ~locations_double_t() override { prodenv::IProductLocations::set(nullptr); }

    void getProductVersion(int& major, int& minor, int& update) const override
    {
        major = version[0];
        minor = version[1];
        update = version[2];
    }
    const char* getProductDirName() const override { return product_dir.c_str(); }
    const char* getDataDir() const override { return data_dir.c_str(); }
    basekit::path_t getTempDir() const override { return temp_dir; }
    bool isToolLookupQuiet() const override { return quiet_lookup; }
};

}  // namespace usemeter_test

#endif
