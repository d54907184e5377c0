// The I/O registry's one service: the input system, as the X server sees it.
#include <IOKit/IOKitLib.h>

#include "SystemObject.h"

#include <X11/extensions/scrnsaver.h>
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

// Handles are numbers, as the kernel's are.
std::mutex g_mutex;
std::map<io_object_t, std::unique_ptr<SystemObject>> &g_objects =
    *new std::map<io_object_t, std::unique_ptr<SystemObject>>;
io_object_t g_lastHandle = 0;

io_object_t handOut(std::unique_ptr<SystemObject> object) {
    const std::lock_guard lock(g_mutex);
    g_objects[++g_lastHandle] = std::move(object);
    return g_lastHandle;
}

struct CloseDisplay {
    void operator()(Display *display) const {
        XCloseDisplay(display);
    }
};
using DisplayConnection = std::unique_ptr<Display, CloseDisplay>;

struct FreeX {
    void operator()(void *memory) const {
        XFree(memory);
    }
};

// Returns the milliseconds since the last input, or -1 when this server does not count them.
int64_t idleMilliseconds(Display *display) {
    int event = 0;
    int error = 0;
    const std::unique_ptr<XScreenSaverInfo, FreeX> info(XScreenSaverAllocInfo());
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

kern_return_t IOServiceGetMatchingServices(mach_port_t, CFDictionaryRef matching, io_iterator_t *existing) {
    const std::unique_ptr<const __CFDictionary> consumed(matching);
    if (!std::getenv("DISPLAY"))
        return KERN_FAILURE;
    auto iterator = std::make_unique<Iterator>();
    iterator->atEnd = !consumed->values.contains("IOHIDSystem") || !DisplayConnection(XOpenDisplay(nullptr));
    *existing = handOut(std::move(iterator));
    return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
    {
        const std::lock_guard lock(g_mutex);
        if (std::exchange(static_cast<Iterator &>(*g_objects.at(iterator)).atEnd, true))
            return 0;
    }
    return handOut(std::make_unique<Service>());
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t, CFMutableDictionaryRef *properties, CFAllocatorRef,
                                                IOOptionBits) {
    const DisplayConnection display(XOpenDisplay(nullptr));
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
    return g_objects.erase(object) == 1 ? KERN_SUCCESS : KERN_FAILURE;
}
