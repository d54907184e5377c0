// The part of CoreFoundation that reads properties, under its own names: constant strings, numbers and dictionaries.
//
// The "Get" and "Create" rules hold: who receives an object from a function with "Create" in its name releases it with
// CFRelease; what a "Get" function returns belongs to somebody else.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const void *CFTypeRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __CFString *CFStringRef;
typedef const struct __CFNumber *CFNumberRef;
typedef const struct __CFDictionary *CFDictionaryRef;
typedef struct __CFDictionary *CFMutableDictionaryRef;
typedef unsigned long CFTypeID;
typedef unsigned char Boolean;
typedef enum { kCFNumberSInt64Type = 4 } CFNumberType;

// The only allocator there is.
extern const CFAllocatorRef kCFAllocatorDefault;

// A constant string; never released.
#define CFSTR(text) __CFStringMakeConstantString("" text "")
CFStringRef __CFStringMakeConstantString(const char *text);

// Returns the value that a constant-string key has in the dictionary, or null.
const void *CFDictionaryGetValue(CFDictionaryRef dictionary, const void *key);

CFTypeID CFGetTypeID(CFTypeRef object);
CFTypeID CFNumberGetTypeID(void);

// Stores the number in *value, an int64_t for kCFNumberSInt64Type, and returns true.
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value);

// Gives up one reference; the last one frees the object and gives up what it holds.
void CFRelease(CFTypeRef object);

#ifdef __cplusplus
}
#endif
