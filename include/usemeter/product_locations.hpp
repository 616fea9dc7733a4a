// prodenv::IProductLocations: the host product's locations service. The host installs
// one with set(); the library only reads it and copes with its absence.
#ifndef USEMETER_PRODUCT_LOCATIONS_HPP
#define USEMETER_PRODUCT_LOCATIONS_HPP

#include "usemeter/export.h"
#include "usemeter/path.hpp"

namespace prodenv {

class USEMETER_API IProductLocations {
public:
    virtual ~IProductLocations();
    virtual void getProductVersion(int& major, int& minor, int& update) const = 0;
    virtual const char* getProductDirName() const = 0;  // per-user settings sub-directory
    virtual const char* getDataDir() const = 0;         // holds statistic/enabled_stat_events.xml
    virtual basekit::path_t getTempDir() const = 0;     // identifier exchange files
    virtual bool isToolLookupQuiet() const = 0;
    static IProductLocations* get();                    // null until a host installs one
    static void set(IProductLocations* service);        // not owned; null uninstalls
};

}  // namespace prodenv

#endif
