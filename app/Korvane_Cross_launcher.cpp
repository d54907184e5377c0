// The launcher's `main`, application object, globals and start-up sequence.
#include "app/Korvane_Cross_launcher.h"

#include "app/Globals.h"
#include "app/UserName.h"
#include "companion/CompanionUpdate.h"
#include "companion/LauncherCheck.h"
#include "platform/Platform.h"
#include "platform/StandardStreams.h"
#include "supervise/Supervision.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <thread>
#include <wx/app.h>
#include <wx/image.h>

using namespace std::chrono_literals;

// The process may end while the supervision thread runs: main returns, or wxWidgets calls exit()
// (Quit and log-out on macOS, a lost display under GTK). Nothing stops the thread or waits for it,
// so nothing of ours that it uses may be destroyed at exit. These objects are on the heap, are
// never freed and stay reachable through the references. So ~thread, which aborts the process if
// its thread is still joinable, does not run either.
std::thread (&g_threads)[1] = *new std::thread[1][1];
std::string &uname_windows = *new std::string;
std::string &filepath = *new std::string;
LoginDialog *g_dlg = nullptr;

class App : public wxApp {
  public:
    App();
    ~App() override {}
    bool OnInit() override;
};

wxIMPLEMENT_APP(App);

// wxWidgets creates the object before it opens the display, whose connection would take a missing
// stream's place.
App::App() {
    openMissingStandardStreams();
}

bool App::OnInit() {
    wxInitAllImageHandlers();
    ForceLightMode();
    std::this_thread::sleep_for(2s);
    initStartup();
    return true;
}

bool PreventMultipleInstances(const std::string &name) {
    const std::string path = "/tmp/" + name + ".lock";
    const int descriptor = open(path.c_str(), O_RDWR | O_CREAT, 0666);
    if (descriptor < 0)
        return false;

    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    // The descriptor stays open on purpose: closing it would drop the lock.
    return fcntl(descriptor, F_SETLK, &lock) < 0;
}

void initStartup() {
    if (PreventMultipleInstances("Korvane"))
        std::exit(0);

    while (uname_windows.empty()) {
        uname_windows = getOSUsername();
        if (uname_windows.empty())
            std::this_thread::sleep_for(1s);
    }

    try {
        filepath = installFolder(getExecutablePath()) + "/";
    } catch (...) {
    }

    StartKR();
    std::this_thread::sleep_for(2s);
    CheckLauncher();
    g_threads[0] = std::thread(KR_Status, 1);
    Platform::SetAutoStart(filepath + "Korvane");
}
