// Runs the launcher's OnInit inside a running event loop, where wxExit returns: Exit() only logs,
// so the deferred call must end the loop. It also logs what OnInit has not prepared. SIGUSR1 ends
// the loop too, and SIGUSR2 calls exit(7) from inside it. With an argument g_dlg has a login
// window, which logs that it is to close, and the slot has a thread, which must be joined first.
// Sleeps take no time. After everything else has been torn down, the process goes on while somebody
// else locks /tmp/held: what the supervision thread uses must still be there.
#include "app/Globals.h"
#include "ui/LoginDialog.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <iostream>
#include <sys/file.h>
#include <wx/app.h>
#include <wx/image.h>

namespace {

// Registered before any other constructor runs, so called after every destructor and every other
// handler.
__attribute__((constructor(101))) void lingerAtExit() {
    std::atexit([] {
        std::fputs("torn down\n", stderr);
        flock(open("/tmp/held", O_RDONLY), LOCK_SH);
    });
}

gboolean end(void *byExit) {
    byExit ? std::exit(7) : wxTheApp->ExitMainLoop();
    return G_SOURCE_REMOVE;
}

wxApp *launcher = nullptr;

class LoopApp : public wxApp {
    bool OnInit() override {
        if (argc > 1) {
            g_dlg = new LoginDialog(nullptr);
            g_dlg->Bind(wxEVT_CLOSE_WINDOW, [](wxCloseEvent &event) {
                std::cerr << (event.CanVeto() ? "asked" : "told to close") << std::endl;
            });
            g_threads[0] = std::thread([] {});
        }
        g_unix_signal_add(SIGUSR1, end, nullptr);
        g_unix_signal_add(SIGUSR2, end, GINT_TO_POINTER(TRUE));
        g_object_set(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", TRUE,
                     nullptr);
        CallAfter([] {
            launcher->OnInit();
            std::fputs(g_threads[0].joinable() ? "supervised\n" : "",
                       stderr); // in one write, which the thread's own output cannot split
        });
        return true;
    }
    void Exit() override {
        gboolean dark = TRUE;
        g_object_get(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", &dark,
                     nullptr);
        std::cerr << "wxExit" << (dark ? ", dark" : "")
                  << (wxImage::FindHandler("PNG file") ? "" : ", no PNG")
                  << (g_threads[0].joinable() ? ", not joined" : "") << std::endl;
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
