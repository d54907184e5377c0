// The floor to measure against: an application with the launcher's libraries that only runs an
// event loop; with an argument it ends in its OnInit.
#include <wx/app.h>

namespace {

class FloorApp : public wxApp {
  public:
    bool OnInit() override {
        return argc == 1;
    }
};

} // namespace

wxIMPLEMENT_APP(FloorApp);
