/* libusemeter C interface.
 *
 * Conventions:
 *  1. A handle comes from usemeter_create_statistic and is owned by the caller until it
 *     is passed to usemeter_destroy_statistic; it must not be used afterwards.
 *  2. Every function that takes a handle accepts NULL and then does nothing
 *     (usemeter_should_ask_user_consent(NULL) returns 0).
 *  3. The library keeps its own copies of every string; callers may free theirs at once.
 *     String arguments must not be NULL.
 *  4. No exception is caught at this boundary: a failure inside the library (out of
 *     memory) leaves the call as a C++ exception. Expected failures (no network, no
 *     consent, unwritable files) are never reported here; they only mean nothing is sent.
 *  5. Calls on different handles are independent. Calls on one handle must not overlap
 *     usemeter_destroy_statistic on that handle; concurrent reports on one handle are
 *     the caller's to serialise.
 *  6. Reporting never waits on the network: hits are posted by a background thread.
 *     usemeter_destroy_statistic waits until every hit reported before it was attempted.
 */
#ifndef USEMETER_H
#define USEMETER_H

#include "usemeter/export.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct statistic_handle_t statistic_handle_t;

/* Builds a new, independent statistics object for the product. Never returns NULL. */
USEMETER_API statistic_handle_t* usemeter_create_statistic(const char* product_name,
                                                           const char* product_version);

/* Destroys the object and frees the handle. NULL: nothing. */
USEMETER_API void usemeter_destroy_statistic(statistic_handle_t* handle);

/* Reports one use of the named feature. NULL handle: nothing. */
USEMETER_API void usemeter_notify_feature_usage(statistic_handle_t* handle,
                                                const char* feature_name);

/* 1 while no consent decision is on record for this user, else 0. NULL handle: 0. */
USEMETER_API int usemeter_should_ask_user_consent(statistic_handle_t* handle);

/* Records the user's answer and re-evaluates whether anything may be sent. NULL: nothing. */
USEMETER_API void usemeter_set_statistic_collection_enabled(statistic_handle_t* handle,
                                                            bool enabled);

#ifdef __cplusplus
}
#endif

#endif
