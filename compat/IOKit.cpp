// An I/O registry with one service: the input system, as the X server reports it.
#include <IOKit/IOKitLib.h>

#include "SystemObject.h"

#include <X11/extensions/scrnsaver.h>
#include <cstdlib>
#include <memory>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr int64_t kNanosecondsPerMillisecond = 1000000;

// A handle is the number of a file descriptor, valid until it is released, as the kernel's handles
// are: an eventfd(2), which counts the services that are left to iterate over.
io_object_t newHandle(unsigned servicesLeft) {
    const int descriptor = eventfd(servicesLeft, EFD_NONBLOCK | EFD_CLOEXEC);
    return descriptor < 0 ? 0 : static_cast<io_object_t>(descriptor);
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
    *existing = newHandle(consumed->values.contains("IOHIDSystem") && connect() ? 1 : 0);
    return *existing ? KERN_SUCCESS : KERN_FAILURE;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
    eventfd_t left = 0;
    return eventfd_read(static_cast<int>(iterator), &left) == 0 ? newHandle(0) : 0;
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t,
                                                CFMutableDictionaryRef *properties, CFAllocatorRef,
                                                IOOptionBits) {
    const DisplayConnection display = connect();
    if (!display)
        return KERN_FAILURE;
    auto table = std::make_unique<__CFDictionary>();
    if (const int64_t idle = idleMilliseconds(display.get()); idle >= 0)
        table->values["HIDIdleTime"] =
            std::make_unique<__CFNumber>(idle * kNanosecondsPerMillisecond);
    *properties = table.release();
    return KERN_SUCCESS;
}

kern_return_t IOObjectRelease(io_object_t object) {
    return close(static_cast<int>(object)) == 0 ? KERN_SUCCESS : KERN_FAILURE;
}
