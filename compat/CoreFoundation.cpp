// CoreFoundation's constant strings, numbers and dictionaries. Each object but the strings has
// exactly one owner here, so a release is a deletion.
#include "SystemObject.h"

namespace {

// Any numbers will do, as long as they differ.
constexpr CFTypeID kDictionaryType = 1;
constexpr CFTypeID kNumberType = 2;

const SystemObject *object(CFTypeRef reference) {
    return static_cast<const SystemObject *>(reference);
}

} // namespace

const CFAllocatorRef kCFAllocatorDefault = nullptr;

// A constant string is represented by the address of its text.
CFStringRef __CFStringMakeConstantString(const char *text) {
    return reinterpret_cast<CFStringRef>(text);
}

const void *CFDictionaryGetValue(CFDictionaryRef dictionary, const void *key) {
    const auto found = dictionary->values.find(static_cast<const char *>(key));
    return found == dictionary->values.end() ? nullptr : found->second.get();
}

CFTypeID CFGetTypeID(CFTypeRef reference) {
    return dynamic_cast<const __CFNumber *>(object(reference)) ? kNumberType : kDictionaryType;
}

CFTypeID CFNumberGetTypeID() {
    return kNumberType;
}

Boolean CFNumberGetValue(CFNumberRef number, CFNumberType, void *value) {
    *static_cast<int64_t *>(value) = dynamic_cast<const __CFNumber &>(*object(number)).value;
    return true;
}

void CFRelease(CFTypeRef reference) {
    delete object(reference);
}
