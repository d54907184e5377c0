// The launcher's `main`, application object, globals and start-up sequence.
#include "app/Korvane_Cross_launcher.h"

#include "app/Globals.h"
#include "companion/CompanionUpdate.h"
#include "companion/LauncherCheck.h"
#include "platform/Platform.h"
#include "platform/SharedFile.h"
#include "supervise/Supervision.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <thread>
#include <unistd.h>
#include <wx/app.h>
#include <wx/image.h>

using namespace std::chrono_literals;

// The process may end while the supervision thread runs: main returns, or wxWidgets calls exit()
// (Quit and log-out on macOS, a lost display under GTK). Nothing stops the thread or waits for it,
// so nothing of ours that it uses may be destroyed at exit. These objects are on the heap, are
// never freed and stay reachable through the references. So ~thread, which aborts the process if
// its thread is still joinable, does not run either.
std::array<std::thread, 1> &g_threads = *new std::array<std::thread, 1>;
std::string &uname_windows = *new std::string;
std::string &filepath = *new std::string;
LoginDialog *g_dlg = nullptr;

namespace {

// Opens each standard stream that is closed on /dev/null. Otherwise the next file to be opened
// would get its number, and libcurl's trace, which goes to standard error, would go into that file.
void openMissingStandardStreams() {
    // open(2) returns the lowest free number, which is this one: the lower ones are open by then.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0)
            open("/dev/null", O_RDWR);
    }
}

} // namespace

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
    UniqueFd file = openSharedFile("/tmp/" + name + ".lock", O_RDWR | O_CREAT);
    if (!file)
        return false;

    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    // The descriptor stays open on purpose: closing it would drop the lock.
    return fcntl(file.release(), F_SETLK, &lock) < 0;
}

std::string getOSUsername() {
    if (const char *user = std::getenv("USER"))
        return user;
    if (const char *logname = std::getenv("LOGNAME"))
        return logname;
    return "unknown";
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
