// The flat entry points. Each handle owns one independent backend; nothing here catches
// exceptions, by contract with C hosts that link the C++ runtime anyway.
#include "usemeter/usemeter.h"

#include <memory>
#include <string>

#include "usemeter/sys/statistic_impl_ga.hpp"

struct statistic_handle_t {
    usemeter_1_5_7::statistic_t* statistic;
};

extern "C" {

statistic_handle_t* usemeter_create_statistic(const char* product_name, const char* product_version)
{
    std::unique_ptr<statistic_handle_t> handle(new statistic_handle_t{nullptr});
    handle->statistic = new usemeter_1_5_7::statistic_impl_ga_t(std::string(product_name),
                                                                std::string(product_version));
    return handle.release();
}

void usemeter_destroy_statistic(statistic_handle_t* handle)
{
    if (!handle)
        return;
    delete handle->statistic;
    handle->statistic = nullptr;
    delete handle;
}

void usemeter_notify_feature_usage(statistic_handle_t* handle, const char* feature_name)
{
    if (handle)
        handle->statistic->notify_feature_usage(std::string(feature_name));
}

int usemeter_should_ask_user_consent(statistic_handle_t* handle)
{
    if (!handle)
        return 0;
    return handle->statistic->get_user_consent() == 0 ? 1 : 0;
}

void usemeter_set_statistic_collection_enabled(statistic_handle_t* handle, bool enabled)
{
    if (handle)
        handle->statistic->set_statistic_collection_enabled(enabled);
}

}  // extern "C"
