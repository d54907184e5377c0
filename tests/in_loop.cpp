// The launcher's start-up sequence from inside a running event loop, which SIGUSR1 ends: the toolkit's state in which
// wxExit returns to its caller, and an end of the main loop that the supervision thread has not asked for.
#include "app/Korvane_Cross_launcher.h"

#include <csignal>
#include <thread>
#include <wx/app.h>

namespace {

sigset_t endSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    return set;
}

class LoopApp : public wxApp {
  public:
    bool OnInit() override {
        CallAfter([] { initStartup(); });
        std::thread([this] {
            int signal = 0;
            const sigset_t set = endSignal();
            sigwait(&set, &signal);
            CallAfter([this] { ExitMainLoop(); });
        }).detach();
        return true;
    }
};

} // namespace

int main(int argc, char **argv) {
    const sigset_t set = endSignal();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    wxApp::SetInstance(new LoopApp);
    return wxEntry(argc, argv);
}
