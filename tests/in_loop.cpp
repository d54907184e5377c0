// Runs the launcher's OnInit inside a running event loop, where wxExit returns, and logs what
// happens. Sleeps take no time. SIGUSR1 ends the loop, and SIGUSR2 calls exit(7) from inside it.
// With an argument there is a login window, and a thread in the slot, which must be joined first.
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
#include <sys/file.h>
#include <wx/app.h>
#include <wx/image.h>

namespace {

// In one write, which another thread's output cannot split.
void log(const char *what) {
    dprintf(STDERR_FILENO, "\nin_loop: %s\n", what);
}

// Registered before any other constructor runs, so called after every destructor and every other
// handler.
__attribute__((constructor(101))) void lingerAtExit() {
    std::atexit([] {
        log("torn down");
        flock(open("/tmp/held", O_RDONLY), LOCK_SH);
    });
}

gboolean end(void *byExit) {
    byExit ? std::exit(7) : wxTheApp->ExitMainLoop();
    return G_SOURCE_REMOVE;
}

bool isDark() {
    gboolean dark = FALSE;
    g_object_get(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", &dark, nullptr);
    return dark;
}

wxApp *launcher = nullptr;

class LoopApp : public wxApp {
    bool OnInit() override {
        if (argc > 1) {
            g_dlg = new LoginDialog(nullptr);
            g_dlg->Bind(wxEVT_CLOSE_WINDOW, [](wxCloseEvent &event) {
                log(event.CanVeto() ? "asked to close" : "told to close");
            });
            g_threads[0] = std::thread([] {});
        }
        g_unix_signal_add(SIGUSR1, end, nullptr);
        g_unix_signal_add(SIGUSR2, end, GINT_TO_POINTER(TRUE));
        g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE,
                     nullptr);
        CallAfter([] {
            launcher->OnInit();
            log(g_threads[0].joinable() ? "supervised" : "not supervised");
        });
        return true;
    }
    void Exit() override {
        log(g_threads[0].joinable() ? "wxExit before the thread is joined" : "wxExit");
        if (g_dlg && isDark())
            log("dark");
        if (!wxImage::FindHandler("PNG file"))
            log("no pictures");
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
