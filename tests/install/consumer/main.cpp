// Compiles against the installed headers and links against exported symbols of each kind:
// the flat functions, facade and bridge members, class type information and vtables, and
// the product-locations service. Nothing here reaches the network or runs a tool.
#include <usemeter/orb_accessor.hpp>
#include <usemeter/product_locations.hpp>
#include <usemeter/statistic.hpp>
#include <usemeter/usemeter.h>

#include <cstdio>
#include <typeinfo>

int main()
{
    // Stored through volatile so the references survive optimisation and reach the linker.
    statistic_handle_t* (*volatile create)(const char*, const char*) = usemeter_create_statistic;
    void (*volatile destroy)(statistic_handle_t*) = usemeter_destroy_statistic;
    void (*volatile notify)(statistic_handle_t*, const char*) = usemeter_notify_feature_usage;
    int (*volatile should_ask)(statistic_handle_t*) = usemeter_should_ask_user_consent;
    void (*volatile set_enabled)(statistic_handle_t*, bool) =
        usemeter_set_statistic_collection_enabled;
    const bool linked = create && destroy && notify && should_ask && set_enabled;

    const bool no_service = prodenv::IProductLocations::get() == nullptr;
    const bool grammar = usemeter::statistic_t::is_feature_name_valid("gui.start") &&
                         !usemeter::statistic_t::is_feature_name_valid("gui..start");

    // The bridge's inline constructor needs its exported vtable; the product id is plain state.
    usemeter::orb_accessor_impl_t bridge;
    bridge.set_product_id(usemeter::product_id_t{42});
    usemeter::orb_accessor_t& base = bridge;
    const bool bridge_ok = base.get_product_id().value == 42 &&
                           typeid(base) == typeid(usemeter::orb_accessor_impl_t) &&
                           typeid(usemeter::statistic_t) != typeid(usemeter::orb_accessor_t);

    if (!linked || !no_service || !grammar || !bridge_ok) {
        std::fprintf(stderr, "consumer: linked %d, no service %d, grammar %d, bridge %d\n",
                     linked, no_service, grammar, bridge_ok);
        return 1;
    }
    return 0;
}
