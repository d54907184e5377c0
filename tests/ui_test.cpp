// The login window and its tray icon: what is built, and what mouse and keyboard do to it. Runs on a real X server with
// a window manager and a tray.
#include "platform/Platform.h"
#include "ui/KorvaneTrayIcon.h"
#include "ui/LoginDialog.h"

#include <clocale>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <wx/evtloop.h>
#include <wx/statline.h>
#include <wx/weakref.h>
#include <wx/wx.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const fs::path kFolder = fs::read_symlink("/proc/self/exe").parent_path();

void pump() {
    wxTheApp->Yield();
    wxTheApp->ProcessIdle();
}

// Handles events until the condition holds; false when it does not come true.
bool until(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        pump();
        wxMilliSleep(5);
    }
    return condition();
}

// Runs a command as a person would act, while the window handles what it causes.
void act(const std::string &command) {
    auto done = std::async(std::launch::async, [&] { return std::system(command.c_str()); });
    ASSERT_TRUE(until([&] { return done.wait_for(0s) == std::future_status::ready; })) << command;
    EXPECT_EQ(done.get(), 0) << command;
}

// Places a picture of this size, or none, beside the executable.
void place(const char *name, wxBitmapType type, int width, int height) {
    fs::remove(kFolder / name);
    if (width > 0)
        wxImage(width, height).SaveFile((kFolder / name).string(), type);
}

class Window : public testing::Test {
  protected:
    void build(int bannerWidth = 40, int bannerHeight = 70, int trayPicture = 22) {
        place("Korvane.bmp", wxBITMAP_TYPE_BMP, bannerWidth, bannerHeight);
        place("offline.png", wxBITMAP_TYPE_PNG, trayPicture, trayPicture);
        window = new LoginDialog(nullptr);
    }
    void TearDown() override {
        delete window;
        pump();
    }
    template <typename Control> std::vector<Control *> all() const {
        std::vector<Control *> found;
        for (wxWindow *child : window->GetChildren()) {
            if (auto *control = dynamic_cast<Control *>(child))
                found.push_back(control);
        }
        return found;
    }
    wxTextCtrl *field(int index) const {
        return all<wxTextCtrl>().at(index);
    }
    wxButton *button(int index) const {
        return all<wxButton>().at(index);
    }
    std::string message() const {
        return all<wxStaticText>().back()->GetLabel().ToStdString();
    }
    void show() {
        window->Show(true);
        ASSERT_TRUE(until([this] { return window->IsActive(); }));
    }
    void click(wxWindow *control) {
        const wxPoint place = control->GetScreenPosition() + control->GetSize() / 2;
        act("xdotool mousemove " + std::to_string(place.x) + " " + std::to_string(place.y) + " click 1");
    }
    void clickTray(int mouseButton) {
        act("eval $(xdotool search --onlyvisible --class trayer getwindowgeometry --shell) && "
            "xdotool mousemove $((X + WIDTH / 2)) $((Y + HEIGHT / 2)) click " +
            std::to_string(mouseButton));
    }
    void type(wxTextCtrl *control, const std::string &text) {
        click(control);
        ASSERT_TRUE(until([&] { return control->HasFocus(); }));
        act("xdotool key ctrl+a BackSpace type '" + text + "'");
        ASSERT_TRUE(until([&] { return control->GetValue() == text; }));
    }

    wxWeakRef<LoginDialog> window;
};

TEST_F(Window, IsDrawnLightOnADarkDesktop) {
    wxFrame frame(nullptr, wxID_ANY, "");
    frame.Show();
    const auto brightness = [&] { // of the empty window on the screen, from 0 to 255
        const wxPoint place = frame.GetScreenPosition() + frame.GetSize() / 2;
        const std::string spot = "1x1+" + std::to_string(place.x) + "+" + std::to_string(place.y);
        const std::unique_ptr<std::FILE, int (*)(std::FILE *)> picture(
            popen(("import -silent -window root -crop " + spot + " -depth 8 gray:-").c_str(), "r"), pclose);
        return std::getc(picture.get());
    };
    EXPECT_TRUE(until([&] { return brightness() == 0x20; }));
    ForceLightMode();
    EXPECT_TRUE(until([&] { return brightness() == 0xf0; }));
}

std::string describe(const wxWindow *control) {
    if (const auto *line = dynamic_cast<const wxStaticLine *>(control))
        return line->IsVertical() ? "vertical line" : "horizontal line";
    if (dynamic_cast<const wxStaticBitmap *>(control))
        return "banner";
    const bool masked = dynamic_cast<const wxTextCtrl *>(control) && control->HasFlag(wxTE_PASSWORD);
    return (wxString::Format("%s '%s' %dx%d %d %s ", control->GetClassInfo()->GetClassName(), control->GetLabel(),
                             control->GetMinSize().x, control->GetMinSize().y, control->GetFont().GetPointSize(),
                             control->GetFont().GetWeight() == wxFONTWEIGHT_BOLD ? "bold" : "normal") +
            control->GetForegroundColour().GetAsString(wxC2S_HTML_SYNTAX) + (control->IsEnabled() ? "" : " disabled") +
            (masked ? " masked" : ""))
        .ToStdString();
}

std::string describe(const wxSizer *sizer, const std::string &indent = "\n  ") {
    const bool vertical = dynamic_cast<const wxBoxSizer *>(sizer)->GetOrientation() == wxVERTICAL;
    std::string text = vertical ? "vertical" : "horizontal";
    for (const wxSizerItem *item : sizer->GetChildren())
        text += indent + wxString::Format("%d %x %d ", item->GetProportion(), item->GetFlag(), item->GetBorder()) +
                (item->IsSizer() ? describe(item->GetSizer(), indent + "  ") : describe(item->GetWindow()));
    return text;
}

TEST_F(Window, IsBuiltAsDesigned) {
    build();
    EXPECT_EQ(describe(window->GetSizer()), R"(vertical
  0 2030 0 horizontal line
  1 2000 0 horizontal
    0 f0 0 banner
    0 20c0 10 vertical line
    1 f0 20 vertical
      0 40 20 wxStaticText 'User Name' -1x-1 10 bold #000000
      0 40 4 wxTextCtrl '' 240x-1 10 normal #000000
      0 40 15 wxStaticText 'Password' -1x-1 10 bold #000000
      0 40 4 wxTextCtrl '' 240x-1 10 normal #000000 masked
      0 40 20 horizontal
        0 20 5 wxButton 'LogIn' 110x30 10 bold #000000
        0 0 0 wxButton 'LogOut' 110x30 10 bold #000000 disabled
      0 40 6 horizontal
        0 20 5 wxButton 'Korvane' 110x30 10 bold #000000 disabled
        0 0 0 wxButton 'Exit' 110x30 10 bold #000000
      0 40 8 wxStaticText '' 230x-1 10 bold #FF0000)");

    for (const wxTextCtrl *text : all<wxTextCtrl>())
        EXPECT_EQ(text->GetBackgroundColour(), *wxWHITE);
    EXPECT_EQ(window->GetBackgroundColour(), wxColour(240, 240, 240));
    EXPECT_EQ(window->GetForegroundColour(), *wxBLACK);
    EXPECT_EQ(window->GetWindowStyle() & ~wxTAB_TRAVERSAL, wxDEFAULT_FRAME_STYLE);
    EXPECT_EQ(window->GetTitle(), "");
    EXPECT_FALSE(window->IsShown());
    EXPECT_EQ(window->GetIcons().GetIconCount(), 1u);
    EXPECT_EQ(window->GetClientSize(), window->GetSizer()->GetMinSize());
    const wxRect screen = wxGetClientDisplayRect();
    const wxPoint centre = window->GetPosition() + window->GetSize() / 2;
    EXPECT_LE(std::abs(centre.x - (screen.x + screen.width / 2)), 1);
    EXPECT_LE(std::abs(centre.y - (screen.y + screen.height / 2)), 1);
    EXPECT_TRUE(fs::exists("/tmp/korvane_debug.txt"));
}

TEST_F(Window, BannerHasItsSizeWhateverThePictures) {
    const struct { int width, height, tray; } table[] = {{400, 300, 22}, {1, 1, 22}, {1000, 37, 1}, {0, 0, 0}};
    for (const auto &[width, height, tray] : table) {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        build(width, height, tray);
        EXPECT_EQ(testing::internal::GetCapturedStderr() + testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(all<wxStaticBitmap>().front()->GetSize(), wxSize(400, 300));
        EXPECT_EQ(window->GetIcons().GetIconCount(), width > 0 ? 1u : 0u);
        if (width == 0) {
            const wxImage plain = all<wxStaticBitmap>().front()->GetBitmap().ConvertToImage();
            EXPECT_EQ(wxColour(plain.GetRed(200, 150), plain.GetGreen(200, 150), plain.GetBlue(200, 150)),
                      window->GetBackgroundColour());
        }
        delete window;
    }
    std::ofstream(kFolder / "Korvane.bmp") << "BM, but not a picture";
    std::ofstream(kFolder / "offline.png") << "\x89PNG, but not a picture";
    window = new LoginDialog(nullptr);
    EXPECT_EQ(all<wxStaticBitmap>().front()->GetSize(), wxSize(400, 300));
}

TEST_F(Window, FieldsSpeakTheLocalesEncoding) {
    std::setlocale(LC_ALL, "C.UTF-8");
    build();
    const std::string text = "J\xC3\xBCrgen \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x98\x80";
    window->SetUsername(text);
    window->SetPassword(text);
    EXPECT_EQ(window->GetUsername(), text);
    EXPECT_EQ(window->GetPassword(), text);
    EXPECT_EQ(field(0)->GetValue(), wxString::FromUTF8(text.c_str()));

    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(window->GetUsername(), "");
    wxCommandEvent press(wxEVT_BUTTON, button(0)->GetId());
    button(0)->ProcessWindowEvent(press);
    EXPECT_EQ(message(), "Please fill both the fields.");
}

TEST_F(Window, LogInChecksTheFields) {
    build();
    show();
    EXPECT_EQ(window->GetClientSize(), window->GetSizer()->GetMinSize());
    const char *const table[][3] = {{"", "", "User Id can't be blank."},
                                    {"alice", "", "Password can't be blank."},
                                    {"alice", "secret", ""},
                                    {"", "secret", "User Id can't be blank."},
                                    {"  ", " ", ""}};
    for (const auto &[user, password, said] : table) {
        type(field(0), user);
        type(field(1), password);
        click(button(0));
        EXPECT_TRUE(until([&, said = said] { return message() == said; })) << message();
    }
}

TEST_F(Window, StaysOpenAndComesBackFromTheTray) {
    build();
    show();
    click(button(3));
    window->Close(true);
    act("wmctrl -c :ACTIVE:");
    pump();
    EXPECT_TRUE(window && window->IsShown());

    act("xdotool getactivewindow windowminimize");
    EXPECT_TRUE(until([this] { return !window->IsShown(); }));
    clickTray(3);
    clickTray(2);
    pump();
    EXPECT_FALSE(window->IsShown());
    for (int click = 0; click < 2; ++click) {
        clickTray(1);
        EXPECT_TRUE(until([this] { return window->IsShown() && !window->IsIconized() && window->IsActive(); }));
    }
}

bool trayIsEmpty() {
    return std::system("xwininfo -tree -id $(xdotool search --onlyvisible --class trayer) | grep -q ui_tests") != 0;
}

TEST_F(Window, WindowAndIconGoInAnyOrder) {
    build();
    wxTaskBarIconEvent click(wxEVT_TASKBAR_LEFT_DOWN, nullptr);

    wxWeakRef<KorvaneTrayIcon> icon = new KorvaneTrayIcon(window);
    delete icon;
    icon = new KorvaneTrayIcon(window);
    EXPECT_TRUE(until([] { return !trayIsEmpty(); }));
    delete window;
    ASSERT_TRUE(icon);
    icon->ProcessEvent(click); // as one that was under way: the window is gone, the icon nearly
    EXPECT_TRUE(until([&] { return !icon && trayIsEmpty(); }));

    // Destroyed by a handler of what the click does: the window first, and at once.
    build();
    icon = new KorvaneTrayIcon(window);
    window->Bind(wxEVT_SHOW, [this](wxShowEvent &) { window->Destroy(); });
    icon->ProcessEvent(click);
    EXPECT_TRUE(until([&] { return !icon && !window; }));

    build();
    field(0)->Destroy(); // a child's end is not the window's
    icon = new KorvaneTrayIcon(window);
    icon->ProcessEvent(click);
    EXPECT_TRUE(until([&] { return window->IsShown(); }));
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    wxApp::SetInstance(new wxApp);
    const wxInitializer toolkit(argc, argv);
    wxInitAllImageHandlers();
    wxEventLoop loop;
    const wxEventLoopActivator activate(&loop);
    return RUN_ALL_TESTS();
}
