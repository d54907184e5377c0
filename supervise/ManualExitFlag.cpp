// Reads and deletes the manual-exit flag.
#include "supervise/ManualExitFlag.h"

#include "app/Globals.h"
#include "platform/FirstLine.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <thread>

using namespace std::chrono_literals;

namespace {

std::string flagPath() {
    return filepath + uname_windows + "_ManualExit.txt";
}

} // namespace

std::string readExitCheck() try {
    while (uname_windows.empty()) {
        if (const char *user = std::getenv("USER"))
            uname_windows = user;
        if (uname_windows.empty())
            std::this_thread::sleep_for(1000ms);
    }
    return readFirstLine(flagPath());
} catch (...) {
    return {};
}

void deleteManualExitFlag() {
    const std::filesystem::path path = flagPath();
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}
