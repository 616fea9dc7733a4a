// Compiles against the installed headers and links against exported symbols of each kind:
// a flat function, facade and bridge members, class type information and vtables, and the
// product-locations service. Nothing here reaches the network or runs a tool.
#include <usemeter/orb_accessor.hpp>
#include <usemeter/product_locations.hpp>
#include <usemeter/statistic.hpp>
#include <usemeter/usemeter.h>

#include <typeinfo>

int main()
{
    // Through volatile, so that the reference survives optimisation and reaches the linker.
    statistic_handle_t* (*volatile create)(const char*, const char*) = usemeter_create_statistic;
    // The bridge's inline constructor needs its exported vtable; the product id is plain state.
    usemeter::orb_accessor_impl_t bridge;
    bridge.set_product_id(usemeter::product_id_t{42});
    const usemeter::orb_accessor_t& base = bridge;
    const bool ok = create && prodenv::IProductLocations::get() == nullptr &&
                    usemeter::statistic_t::is_feature_name_valid("gui.start") &&
                    !usemeter::statistic_t::is_feature_name_valid("gui..start") &&
                    base.get_product_id().value == 42 &&
                    typeid(base) == typeid(usemeter::orb_accessor_impl_t) &&
                    typeid(usemeter::statistic_t) != typeid(usemeter::orb_accessor_t);
    return ok ? 0 : 1;
}
