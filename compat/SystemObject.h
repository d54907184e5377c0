// The objects behind CoreFoundation's and IOKit's handles.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <map>
#include <memory>
#include <string>

struct SystemObject {
    SystemObject() = default;
    virtual ~SystemObject() = default;
    SystemObject(const SystemObject &) = delete;
    SystemObject &operator=(const SystemObject &) = delete;
};

struct __CFNumber : SystemObject {
    explicit __CFNumber(int64_t number) : value(number) {}
    const int64_t value;
};

// Owns its values; keys are constant strings.
struct __CFDictionary : SystemObject {
    std::map<std::string, std::unique_ptr<SystemObject>> values;
};
