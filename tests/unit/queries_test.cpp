// The system queries, on a real display and real threads. The layer below counts its objects: none may be left over.
#include "LiveObjects.h"
#include "SystemObject.h"
#include "platform/Platform.h"

#include <IOKit/IOKitLib.h>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

using namespace std::chrono_literals;

namespace {

// What the input system's properties are asked to be.
enum class Properties { Real, Missing, NotANumber };
Properties g_properties = Properties::Real;

} // namespace

extern "C" {
kern_return_t __real_IORegistryEntryCreateCFProperties(io_registry_entry_t, CFMutableDictionaryRef *, CFAllocatorRef,
                                                       IOOptionBits);

// Put in the place of the layer's own function by the linker (--wrap, ld(1)).
kern_return_t __wrap_IORegistryEntryCreateCFProperties(io_registry_entry_t entry, CFMutableDictionaryRef *properties,
                                                       CFAllocatorRef allocator, IOOptionBits options) {
    if (g_properties == Properties::Real)
        return __real_IORegistryEntryCreateCFProperties(entry, properties, allocator, options);
    if (g_properties == Properties::Missing)
        return KERN_FAILURE;
    *properties = new __CFDictionary;
    (*properties)->values["HIDIdleTime"] = new __CFDictionary;
    return KERN_SUCCESS;
}
}

namespace {

bool becomes(std::int64_t seconds) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (Platform::GetIdleTimeSeconds() != seconds && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    return Platform::GetIdleTimeSeconds() == seconds;
}

TEST(Queries, IdleTimeIsTheDisplays) {
    const auto begin = std::chrono::steady_clock::now();
    std::system("xdotool mousemove 10 10");
    EXPECT_TRUE(becomes(0));
    EXPECT_TRUE(becomes(2));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2s);
    EXPECT_EQ(liveSystemObjects(), 0);

    // And nothing where it cannot be told.
    for (const Properties properties : {Properties::Missing, Properties::NotANumber}) {
        g_properties = properties;
        EXPECT_EQ(Platform::GetIdleTimeSeconds(), 0);
        EXPECT_EQ(liveSystemObjects(), 0);
    }
    g_properties = Properties::Real;

    const std::string display = std::getenv("DISPLAY");
    // A server that does not count idle time, one that is not there, and none.
    const char *const displays[] = {std::getenv("DISPLAY_WITHOUT_IDLE_TIME"), ":999", nullptr};
    for (const char *other : displays) {
        other ? setenv("DISPLAY", other, 1) : unsetenv("DISPLAY");
        EXPECT_EQ(Platform::GetIdleTimeSeconds(), 0);
        EXPECT_EQ(liveSystemObjects(), 0);
    }
    setenv("DISPLAY", display.c_str(), 1);
    EXPECT_TRUE(becomes(Platform::GetIdleTimeSeconds() + 1));
}

TEST(Queries, DesktopFolders) {
    EXPECT_EQ(Platform::GetPublicDesktopPath(), "/Users/Shared/Desktop");
    setenv("HOME", "/Users/demo/", 1);
    EXPECT_EQ(Platform::GetUserDesktopPath(), "/Users/demo//Desktop");
    unsetenv("HOME");
    EXPECT_EQ(Platform::GetUserDesktopPath(), "");
}

TEST(Queries, SemaphoresBlockUntilReleased) {
    static dispatch_semaphore_t semaphore = nullptr; // nothing frees it
    Platform::SemInit(semaphore, -1);
    EXPECT_EQ(semaphore, nullptr);

    Platform::SemInit(semaphore, 1);
    const dispatch_semaphore_t handle = semaphore;
    Platform::SemWait(semaphore);
    std::atomic<int> released = 0;
    std::atomic<int> passed = 0;
    std::thread waiter([&] {
        for (int pass = 0; pass < 3; ++pass) {
            Platform::SemWait(semaphore);
            EXPECT_LE(++passed, released);
        }
    });
    Platform::SemDestroy(semaphore);
    EXPECT_EQ(semaphore, handle);
    while (released < 3) {
        std::this_thread::sleep_for(20ms); // for a waiter that does not wait to be caught
        ++released;
        Platform::SemRelease(semaphore);
    }
    waiter.join();
    Platform::SemDestroy(semaphore);
}

} // namespace
