// The launcher's start-up sequence from inside a running event loop, where wxExit returns; here it does nothing else,
// so that only what start-up defers ends the loop. SIGUSR1 ends it too, and SIGUSR2 calls exit(7) from inside it.
// With an argument there is a login window in g_dlg, which tells when it is to close.
//
// When all else has been torn down, the process goes on for as long as somebody else locks /tmp/held: what the
// supervision thread uses must still be there. Sleeps take no time, but for those of that thread that are of
// KORVANE_SLEEP seconds: they last until everything is torn down.
#include "app/Globals.h"
#include "app/Korvane_Cross_launcher.h"
#include "ui/LoginDialog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <glib-unix.h>
#include <sys/file.h>
#include <unistd.h>
#include <wx/app.h>

namespace {

std::atomic<int> g_tornDown = 0;

// Registered before all constructors have run, and so called after all destructors and other handlers.
__attribute__((constructor(101))) void lingerAtExit() {
    std::atexit([] {
        std::fputs("torn down\n", stderr);
        g_tornDown = 1;
        g_tornDown.notify_all();
        flock(open("/tmp/held", O_RDONLY), LOCK_SH);
    });
}

gboolean end(void *byExit) {
    byExit ? std::exit(7) : wxTheApp->ExitMainLoop();
    return G_SOURCE_REMOVE;
}

class LoopApp : public wxApp {
    bool OnInit() override {
        if (argc > 1) {
            g_dlg = new LoginDialog(nullptr);
            g_dlg->Bind(wxEVT_CLOSE_WINDOW, [](wxCloseEvent &event) {
                std::fputs(event.CanVeto() ? "asked\n" : "told to close\n", stderr);
            });
        }
        g_unix_signal_add(SIGUSR1, end, nullptr);
        g_unix_signal_add(SIGUSR2, end, this);
        CallAfter([] { initStartup(); });
        return true;
    }
    void Exit() override {
        std::fputs("wxExit\n", stderr);
    }
};

} // namespace

// In the place of the C library's.
extern "C" int nanosleep(const timespec *time, timespec *) {
    if (!g_tornDown && gettid() != getpid() && time->tv_sec == std::atol(std::getenv("KORVANE_SLEEP"))) {
        std::fputs("asleep\n", stderr);
        g_tornDown.wait(0);
    }
    return 0;
}

int main(int argc, char **argv) {
    wxApp::SetInstance(new LoopApp);
    return wxEntry(argc, argv);
}
