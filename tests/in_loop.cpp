// The launcher's start-up sequence from inside a running event loop: the toolkit's state in which wxExit returns to its
// caller. SIGUSR1 ends the loop, without the supervision thread having asked for it; SIGUSR2 calls exit(7) from inside
// the loop, as a toolkit does on log-out.
#include "app/Korvane_Cross_launcher.h"

#include <csignal>
#include <cstdlib>
#include <thread>
#include <wx/app.h>

namespace {

sigset_t endSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    return set;
}

class LoopApp : public wxApp {
  public:
    bool OnInit() override {
        CallAfter([] { initStartup(); });
        std::thread([this] {
            int signal = 0;
            const sigset_t set = endSignals();
            sigwait(&set, &signal);
            CallAfter([this, signal] { signal == SIGUSR1 ? ExitMainLoop() : std::exit(7); });
        }).detach();
        return true;
    }
};

} // namespace

int main(int argc, char **argv) {
    const sigset_t set = endSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    wxApp::SetInstance(new LoopApp);
    return wxEntry(argc, argv);
}
