// The part of CoreFoundation that reads properties, with its names: constant strings, numbers and
// dictionaries.
//
// Ownership follows CoreFoundation's rules: the caller of a function with "Create" in its name
// releases the object with CFRelease; the caller of a "Get" function does not own what it returns.
#pragma once

#include <stdint.h>

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

// Returns the dictionary's value for a constant-string key, or null.
const void *CFDictionaryGetValue(CFDictionaryRef dictionary, const void *key);

CFTypeID CFGetTypeID(CFTypeRef object);
CFTypeID CFNumberGetTypeID(void);

// Stores the number in *value, an int64_t for kCFNumberSInt64Type, and returns true. Throws when
// the object is no number.
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value);

// Releases one reference; releasing the last one frees the object and releases what it holds.
void CFRelease(CFTypeRef object);
