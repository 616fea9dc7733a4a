#include "usemeter/statistic.hpp"

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

}  // namespace usemeter_1_5_7
