// Ends an outdated launcher.
#include "companion/LauncherCheck.h"

#include "app/Globals.h"
#include "companion/VersionCheck.h"
#include "ui/LoginDialog.h"

#include <thread>
#include <wx/app.h>

void CheckLauncher() {
    if (!serviceHasNewer("Korvane_CAP"))
        return;

    for (std::thread &thread : g_threads) {
        if (thread.joinable())
            thread.join();
    }

    try {
        wxAppConsole::GetInstance()->CallAfter([] {
            if (g_dlg)
                g_dlg->Close(true);
            wxAppConsole::GetInstance()->ExitMainLoop();
        });
    } catch (...) {
    }
    wxExit();
}
