// Operating-system services, through macOS's interfaces or those of compat/.
#include "platform/Platform.h"

#include "platform/FirstLine.h"
#include "platform/SharedFile.h"

#import <AppKit/AppKit.h>
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mach-o/dyld.h>
#include <optional>

namespace fs = std::filesystem;

namespace {

std::optional<std::string> inHome(const char *path) {
    const char *home = std::getenv("HOME");
    if (!home)
        return std::nullopt;
    return std::string(home) + path;
}

constexpr const char *kAgentFile = "/Library/LaunchAgents/com.mervix.korvane.plist";

void writePathTrace(int result, const char *rawPath, std::uint32_t size) {
    const UniqueFd trace = openSharedFile("/tmp/korvane_debug.txt", O_WRONLY | O_CREAT);
    if (trace && ftruncate(trace.get(), 0) == 0)
        dprintf(trace.get(), "ret: %d\nraw path: %s\nsize: %u\n", result, rawPath, size);
}

constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

} // namespace

std::string Platform::GetExternalAppVersion(const std::string &appPath) {
    return readFirstLine(appPath + ".version");
}

void Platform::CloseExternalApp(const std::string &pattern) {
    [[maybe_unused]] const int status = std::system(("pkill -f \"" + pattern + "\"").c_str());
}

void Platform::SetAutoStart(const std::string &program) {
    const auto path = inHome(kAgentFile);
    if (!path)
        return;
    std::ofstream agent(*path);
    agent << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          << "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\""
          << " \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
          << "<plist version=\"1.0\"><dict>\n"
          << "  <key>Label</key><string>com.mervix.korvane</string>\n"
          << "  <key>ProgramArguments</key><array>\n"
          << "    <string>" << program << "</string>\n"
          << "  </array>\n"
          << "  <key>RunAtLoad</key><true/>\n"
          << "</dict></plist>\n";
}

void Platform::RemoveAutoStart() {
    if (const auto path = inHome(kAgentFile))
        fs::remove(*path);
}

std::int64_t Platform::GetIdleTimeSeconds() {
    io_iterator_t matches = 0;
    if (IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("IOHIDSystem"),
                                     &matches) != KERN_SUCCESS)
        return 0;
    const io_object_t service = IOIteratorNext(matches);
    IOObjectRelease(matches);
    if (!service)
        return 0;

    CFMutableDictionaryRef properties = nullptr;
    if (IORegistryEntryCreateCFProperties(service, &properties, kCFAllocatorDefault, 0) !=
        KERN_SUCCESS) {
        IOObjectRelease(service);
        return 0;
    }
    std::int64_t idle = 0;
    const void *value = CFDictionaryGetValue(properties, CFSTR("HIDIdleTime"));
    if (value && CFGetTypeID(value) == CFNumberGetTypeID())
        CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &idle);
    CFRelease(properties);
    IOObjectRelease(service);
    return idle / kNanosecondsPerSecond;
}

std::string Platform::GetPublicDesktopPath() {
    return "/Users/Shared/Desktop";
}

std::string Platform::GetUserDesktopPath() {
    return inHome("/Desktop").value_or("");
}

void Platform::SemInit(dispatch_semaphore_t &sem, int initialValue) {
    sem = dispatch_semaphore_create(initialValue);
}

void Platform::SemWait(dispatch_semaphore_t &sem) {
    dispatch_semaphore_wait(sem, DISPATCH_TIME_FOREVER);
}

void Platform::SemRelease(dispatch_semaphore_t &sem) {
    dispatch_semaphore_signal(sem);
}

void Platform::SemDestroy(dispatch_semaphore_t &) {}

void Platform::InitTrayIcon(const std::string &, const std::string &) {}

void Platform::RemoveTrayIcon() {}

std::string getExecutablePath() {
    std::array<char, 4096> raw = {};
    std::uint32_t size = raw.size();
    const int result = _NSGetExecutablePath(raw.data(), &size);
    writePathTrace(result, raw.data(), size);
    if (result != 0)
        return raw.data();

    std::array<char, 4096> resolved = {};
    return realpath(raw.data(), resolved.data()) ? resolved.data() : raw.data();
}

std::string installFolder(const std::string &executablePath) {
    return fs::path(executablePath)
        .parent_path()
        .parent_path()
        .parent_path()
        .parent_path()
        .string();
}

void ForceLightMode() {
    [NSApp setAppearance:[NSAppearance appearanceNamed:NSAppearanceNameAqua]];
}
