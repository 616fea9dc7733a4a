/* Symbol visibility for libusemeter. The library is built with hidden visibility;
 * only declarations marked USEMETER_API leave the shared object. */
#ifndef USEMETER_EXPORT_H
#define USEMETER_EXPORT_H

#if defined(USEMETER_BUILDING)
#define USEMETER_API __attribute__((visibility("default")))
#else
#define USEMETER_API
#endif

#endif
