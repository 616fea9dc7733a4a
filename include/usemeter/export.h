/* Symbol visibility for libusemeter. The library is built with hidden visibility;
 * only declarations marked USEMETER_API leave the shared object. */
#ifndef USEMETER_EXPORT_H
#define USEMETER_EXPORT_H

#if defined(USEMETER_BUILDING)
#define USEMETER_API __attribute__((visibility("default")))
#else
#define USEMETER_API
#endif

#ifdef __cplusplus
/* Every C++ header of the library brings the short name of its versioned namespace. */
namespace usemeter_1_5_7 {}
namespace usemeter = usemeter_1_5_7;
#endif

#endif
