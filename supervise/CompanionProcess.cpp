// The companion's process, by pgrep(1) and pkill(1).
#include "supervise/CompanionProcess.h"

#include "platform/Closing.h"
#include "platform/Platform.h"

#include <cstdio>
#include <memory>

bool KR_TitleCheck() try {
    const std::unique_ptr<std::FILE, Closing<pclose>> pipe(popen("pgrep -x KR", "r"));
    if (!pipe)
        return false;
    char firstLine[32] = {};
    return std::fgets(firstLine, sizeof firstLine, pipe.get()) && firstLine[0] != '\0';
} catch (...) {
    return true;
}

void CloseKR() {
    Platform::CloseExternalApp("KR");
}
