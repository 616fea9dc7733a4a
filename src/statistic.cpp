#include "usemeter/statistic.hpp"

#include <sstream>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include "usemeter/product_locations.hpp"
#include "usemeter/sys/statistic_impl_ga.hpp"

namespace usemeter_1_5_7 {

// ---------------------------------------------------------------------------
// statistic_t: defaults of the abstract interface
// ---------------------------------------------------------------------------

statistic_t::~statistic_t() {}

// Not pure on purpose: hosts built against the interface may call it on any object.
void statistic_t::notify_feature_usage_ex(const std::string&, unsigned long long) {}

int statistic_t::get_user_consent() const
{
    return 0;
}

void statistic_t::set_statistic_collection_enabled(bool) {}

// ---- The process-wide instance ---------------------------------------------------------

namespace {

// Serialises get(), construction included, so at most one backend is built at a time.
boost::mutex instance_mutex;

const char* const default_product_name = "trovix";

std::string product_version_from_locations()
{
    const prodenv::IProductLocations* locations = prodenv::IProductLocations::get();
    if (!locations)
        return "unknown";
    int major = 0, minor = 0, update = 0;
    locations->getProductVersion(major, minor, update);
    std::ostringstream version;
    version << major << '.' << minor << '.' << update;
    return version.str();
}

}  // namespace

boost::shared_ptr<statistic_t> statistic_t::get()
{
    boost::unique_lock<boost::mutex> lock(instance_mutex);
    // Only the callers' shared pointers keep the instance alive; this cache does not.
    static boost::weak_ptr<statistic_t> cached;
    if (boost::shared_ptr<statistic_t> existing = cached.lock())
        return existing;

    boost::shared_ptr<statistic_t> created(
        new statistic_impl_ga_t(default_product_name, product_version_from_locations()));
    cached = created;
    return created;
}

// ---- statistic_guard_t -----------------------------------------------------------------

statistic_guard_t::statistic_guard_t(const std::string& stem, const std::string& entry_suffix,
                                     const std::string& exit_suffix,
                                     boost::shared_ptr<statistic_t> statistic)
    : stem_(stem), entry_suffix_(entry_suffix), exit_suffix_(exit_suffix),
      statistic_(std::move(statistic))
{
    statistic_->notify_feature_usage(stem_ + entry_suffix_);
    statistic_->flush();
}

statistic_guard_t::~statistic_guard_t()
{
    statistic_->notify_feature_usage(stem_ + exit_suffix_);
    statistic_->flush();
}

}  // namespace usemeter_1_5_7
