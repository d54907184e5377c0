// The supervision loop.
#include "supervise/Supervision.h"

#include "companion/CompanionUpdate.h"
#include "supervise/CompanionProcess.h"
#include "supervise/ManualExitFlag.h"

#include <chrono>
#include <thread>
#include <wx/app.h>

using namespace std::chrono_literals;

namespace {

// The event loop belongs to the main thread, which runs the deferred call. wxWidgets owns the
// application object, and may already have deleted it if the process is ending.
void askMainLoopToEnd() {
    if (wxAppConsole *app = wxAppConsole::GetInstance())
        app->CallAfter([app] { app->ExitMainLoop(); });
}

} // namespace

void KR_Status(int) {
    try {
        for (;;) {
            for (int counter = 1; counter < 60; counter += 2) {
                std::this_thread::sleep_for(1s);
                // The counter takes odd numbers only, so this is every fifth of the 30 passes.
                if (counter % 5 == 0 && readExitCheck() == "1") {
                    deleteManualExitFlag();
                    askMainLoopToEnd();
                    return;
                }
            }
            if (!KR_TitleCheck())
                StartKR();
        }
    } catch (...) {
    }
}
