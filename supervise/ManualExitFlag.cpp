// The file through which the companion reports that the user quit it.
#include "supervise/ManualExitFlag.h"

#include "app/Globals.h"
#include "platform/FirstLine.h"

#include <chrono>
#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;

std::string manualExitFlagPath() {
    return filepath + uname_windows + "_ManualExit.txt";
}

std::string readExitCheck() try {
    while (uname_windows.empty()) {
        if (const char *user = std::getenv("USER"))
            uname_windows = user;
        if (uname_windows.empty())
            std::this_thread::sleep_for(1000ms);
    }
    return readFirstLine(manualExitFlagPath());
} catch (...) {
    return {};
}
