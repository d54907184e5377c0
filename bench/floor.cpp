// The floor to measure against: an application of the toolkit that only runs an event loop. Where FLOOR_REPORTS is set,
// it writes one byte to standard output from its OnInit.
#include <cstdlib>
#include <unistd.h>
#include <wx/app.h>

namespace {

class FloorApp : public wxApp {
  public:
    bool OnInit() override {
        return !std::getenv("FLOOR_REPORTS") || write(STDOUT_FILENO, "", 1) == 1;
    }
};

} // namespace

wxIMPLEMENT_APP(FloorApp);
