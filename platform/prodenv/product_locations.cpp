#include "usemeter/product_locations.hpp"

#include <atomic>

namespace prodenv {

namespace {
std::atomic<IProductLocations*> installed_service{nullptr};
}

IProductLocations::~IProductLocations() = default;

IProductLocations* IProductLocations::get()
{
    return installed_service.load(std::memory_order_acquire);
}

void IProductLocations::set(IProductLocations* service)
{
    installed_service.store(service, std::memory_order_release);
}

}  // namespace prodenv
