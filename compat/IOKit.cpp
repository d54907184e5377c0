// An I/O registry with one service: the input system, as the X server reports it.
#include <IOKit/IOKitLib.h>

#include "SystemObject.h"

#include <X11/extensions/scrnsaver.h>
#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

namespace {

constexpr int64_t kNanosecondsPerMillisecond = 1000000;

struct Iterator : SystemObject {
    bool atEnd = false;
};
struct Service : SystemObject {};

// Handles are numbers, as the kernel's are, and few: a caller that does not release them soon gets
// no more.
std::mutex g_mutex;
std::array<std::unique_ptr<SystemObject>, 16> &g_objects =
    *new std::array<std::unique_ptr<SystemObject>, 16>;

io_object_t handOut(std::unique_ptr<SystemObject> object) {
    const std::lock_guard lock(g_mutex);
    const auto free = std::find(g_objects.begin(), g_objects.end(), nullptr);
    if (free == g_objects.end())
        return 0;
    *free = std::move(object);
    return static_cast<io_object_t>(free - g_objects.begin()) + 1;
}

using DisplayConnection = std::unique_ptr<Display, decltype(&XCloseDisplay)>;

DisplayConnection connect() {
    return {XOpenDisplay(nullptr), XCloseDisplay};
}

// Returns the milliseconds since the last input, or -1 when this server does not count them.
int64_t idleMilliseconds(Display *display) {
    int event = 0;
    int error = 0;
    const std::unique_ptr<XScreenSaverInfo, decltype(&XFree)> info(XScreenSaverAllocInfo(), XFree);
    if (!XScreenSaverQueryExtension(display, &event, &error) ||
        !XScreenSaverQueryInfo(display, DefaultRootWindow(display), info.get()))
        return -1;
    return static_cast<int64_t>(info->idle);
}

} // namespace

const mach_port_t kIOMainPortDefault = 0;

CFMutableDictionaryRef IOServiceMatching(const char *name) {
    auto matching = std::make_unique<__CFDictionary>();
    matching->values[name] = nullptr;
    return matching.release();
}

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching,
                                           io_iterator_t *existing) {
    const std::unique_ptr<const __CFDictionary> consumed(matching);
    if (!std::getenv("DISPLAY"))
        return KERN_FAILURE;
    auto iterator = std::make_unique<Iterator>();
    iterator->atEnd = !consumed->values.contains("IOHIDSystem") || !connect();
    *existing = handOut(std::move(iterator));
    return *existing ? KERN_SUCCESS : KERN_FAILURE;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
    {
        const std::lock_guard lock(g_mutex);
        if (std::exchange(static_cast<Iterator &>(*g_objects.at(iterator - 1)).atEnd, true))
            return 0;
    }
    return handOut(std::make_unique<Service>());
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t,
                                                CFMutableDictionaryRef *properties, CFAllocatorRef,
                                                IOOptionBits) {
    const DisplayConnection display = connect();
    if (!display)
        return KERN_FAILURE;
    auto table = std::make_unique<__CFDictionary>();
    if (const int64_t idle = idleMilliseconds(display.get()); idle >= 0)
        table->values["HIDIdleTime"] = new __CFNumber(idle * kNanosecondsPerMillisecond);
    *properties = table.release();
    return KERN_SUCCESS;
}

kern_return_t IOObjectRelease(io_object_t object) {
    const std::lock_guard lock(g_mutex);
    return std::exchange(g_objects.at(object - 1), nullptr) ? KERN_SUCCESS : KERN_FAILURE;
}
