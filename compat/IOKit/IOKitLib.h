// The part of IOKit that finds a service of the I/O registry and reads its properties, with IOKit's
// names.
//
// The registry holds one service, of class "IOHIDSystem", while the X server named by DISPLAY can
// be reached.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

typedef int kern_return_t;
typedef uint32_t IOOptionBits;
typedef uint32_t mach_port_t;
typedef mach_port_t io_object_t; // 0: none
typedef io_object_t io_iterator_t;
typedef io_object_t io_registry_entry_t;

#define KERN_SUCCESS 0
#define KERN_FAILURE 5

extern const mach_port_t kIOMainPortDefault;

// Returns a new dictionary that matches services of this class. IOServiceGetMatchingServices takes
// ownership of it.
CFMutableDictionaryRef IOServiceMatching(const char *name);

// Stores a new iterator over the services that match. Consumes the dictionary even when it fails.
// Fails when DISPLAY is not set.
kern_return_t IOServiceGetMatchingServices(mach_port_t mainPort, CFDictionaryRef matching,
                                           io_iterator_t *existing);

// Returns the next object, which the caller releases, or 0 after the last.
io_object_t IOIteratorNext(io_iterator_t iterator);

// Stores a new dictionary of the entry's properties: "HIDIdleTime", the nanoseconds since the last
// input, if the X server counts them (MIT-SCREEN-SAVER extension). Fails when the server can no
// longer be reached.
kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry,
                                                CFMutableDictionaryRef *properties,
                                                CFAllocatorRef allocator, IOOptionBits options);

kern_return_t IOObjectRelease(io_object_t object);
