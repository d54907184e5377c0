// A program that shows the login window and does nothing else, for looking at it. The window's pictures are looked for
// beside this program.
#include "platform/Platform.h"
#include "ui/LoginDialog.h"

#include <wx/app.h>
#include <wx/image.h>

namespace {

class WindowApp : public wxApp {
  public:
    bool OnInit() override {
        wxInitAllImageHandlers();
        ForceLightMode();
        return (new LoginDialog(nullptr))->Show(true);
    }
};

} // namespace

int main(int argc, char **argv) {
    wxApp::SetInstance(new WindowApp);
    return wxEntry(argc, argv);
}
