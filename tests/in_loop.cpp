// Runs the launcher's OnInit inside a running event loop, and logs what happens. Sleeps take no
// time. SIGUSR1 ends the loop. With an argument there is a login window, and a thread in the slot.
// After everything has been torn down, the process goes on while somebody else locks /tmp/held:
// what the supervision thread uses must still be there.
#include "app/Globals.h"
#include "ui/LoginDialog.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <poll.h>
#include <sys/file.h>
#include <wx/app.h>
#include <wx/image.h>

namespace {

void log(const char *what) {
    dprintf(STDERR_FILENO, "\nin_loop: %s\n", what);
}

// Registered first, so called last.
__attribute__((constructor(101))) void lingerAtExit() {
    std::atexit([] {
        log("torn down");
        flock(open("/tmp/held", O_RDONLY), LOCK_SH);
    });
}

gboolean endLoop(void *) {
    wxTheApp->ExitMainLoop();
    return G_SOURCE_REMOVE;
}

constexpr const char *kDark = "gtk-application-prefer-dark-theme";
wxApp *launcher = nullptr;

class LoopApp : public wxApp {
    bool OnInit() override {
        if (argc > 1) {
            g_dlg = new LoginDialog(nullptr);
            g_dlg->Bind(wxEVT_CLOSE_WINDOW, [](wxCloseEvent &event) {
                log(event.CanVeto() ? "asked to close" : "told to close");
            });
            g_threads[0] = std::thread([] {
                poll(nullptr, 0, 200);
                log("joined");
            });
        }
        g_unix_signal_add(SIGUSR1, endLoop, nullptr);
        g_object_set(gtk_settings_get_default(), kDark, TRUE, nullptr);
        CallAfter([] {
            log(launcher->OnInit() && g_threads[0].joinable() ? "supervised" : "not supervised");
        });
        return true;
    }
    void Exit() override {
        gboolean dark = FALSE;
        g_object_get(gtk_settings_get_default(), kDark, &dark, nullptr);
        log("wxExit");
        log(g_dlg && dark ? "dark" : wxImage::FindHandler("PNG file") ? "light" : "no pictures");
    }
    void ExitMainLoop() override {
        if (IsMainLoopRunning()) // not while the process ends
            log(wxIsMainThread() ? "left" : "left by another thread");
        wxApp::ExitMainLoop();
    }
};

} // namespace

// In the place of the C library's.
extern "C" int nanosleep(const timespec *, timespec *) {
    return 0;
}

int main(int argc, char **argv) {
    launcher = static_cast<wxApp *>(wxApp::GetInitializerFunction()());
    wxApp::SetInstance(new LoopApp);
    return wxEntry(argc, argv);
}
