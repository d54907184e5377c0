// The login window and its tray icon: what is built, and what mouse and keyboard do to it. Runs on a real X server with
// a window manager and a tray.
#include "platform/Platform.h"
#include "ui/KorvaneTrayIcon.h"
#include "ui/LoginDialog.h"

#include <clocale>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <gtk/gtkx.h>
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
    const char *const arguments[] = {"sh", "-c", command.c_str(), nullptr};
    EXPECT_EQ(wxExecute(arguments, wxEXEC_SYNC | wxEXEC_NODISABLE), 0) << command;
}

// Places a picture of this size beside the executable: none for 0, and what is no picture for less.
void place(const char *name, wxBitmapType type, wxSize size) {
    fs::remove(kFolder / name);
    if (size.x > 0)
        wxImage(size).SaveFile((kFolder / name).string(), type);
    else if (size.x < 0)
        std::ofstream(kFolder / name) << (type == wxBITMAP_TYPE_BMP ? "BM, no picture" : "\x89PNG, no picture");
}

// Raising a minimised window restores it as well; only a window that notes what it is told shows which was asked for.
struct NotingWindow : LoginDialog {
    using LoginDialog::LoginDialog;
    void Iconize(bool minimise) override {
        restored = !minimise;
        LoginDialog::Iconize(minimise);
    }
    bool restored = false;
};

// The window's controls of interest, by their place among its children.
enum Child { kBanner = 1, kCaption = 3, kUser = 4, kPassword = 6, kLogIn = 7, kExit = 10, kMessage = 11 };

class Window : public testing::Test {
  protected:
    void build(wxSize banner = {40, 70}, int trayPicture = 22) {
        place("Korvane.bmp", wxBITMAP_TYPE_BMP, banner);
        place("offline.png", wxBITMAP_TYPE_PNG, {trayPicture, trayPicture});
        window = new NotingWindow(nullptr);
    }
    void TearDown() override {
        delete window;
        pump();
    }
    wxWindow *child(Child which) const {
        return window->GetChildren().Item(which)->GetData();
    }
    wxString message() const {
        return child(kMessage)->GetLabel();
    }
    // Clicks where the pointer lights up the button: the window manager may still be placing the window.
    void click(wxWindow *button) {
        EXPECT_TRUE(until([&] {
            const wxPoint place = button->GetScreenPosition() + button->GetSize() / 2;
            act("xdotool mousemove " + std::to_string(place.x) + " " + std::to_string(place.y));
            return gtk_widget_get_state_flags(button->GetHandle()) & GTK_STATE_FLAG_PRELIGHT;
        }));
        act("xdotool click 1");
    }
    void clickTray(int mouseButton) {
        act("eval $(xdotool search --onlyvisible --class trayer getwindowgeometry --shell) && "
            "xdotool mousemove $((X + WIDTH / 2)) $((Y + HEIGHT / 2)) click " +
            std::to_string(mouseButton));
    }
    bool comesToTheFront() {
        return until([this] { return window->IsShown() && !window->IsIconized() && window->IsActive(); });
    }

    wxWeakRef<NotingWindow> window;
};

TEST_F(Window, IsDrawnLightOnADarkDesktop) {
    wxFrame frame(nullptr, wxID_ANY, "");
    frame.Show();
    const auto brightness = [&] { // of the empty window on the screen, from 0 to 255
        const wxPoint place = frame.GetScreenPosition() + frame.GetSize() / 2;
        const auto shoot = wxString::Format("import -silent -window root -crop 1x1+%d+%d gray:-", place.x, place.y);
        const std::unique_ptr<std::FILE, int (*)(std::FILE *)> picture(popen(shoot, "r"), pclose);
        return std::getc(picture.get());
    };
    EXPECT_TRUE(until([&] { return brightness() == 0x20; }));
    ForceLightMode();
    EXPECT_TRUE(until([&] { return brightness() == 0xf0; }));
}

wxString describe(const wxWindow *control) {
    const wxSize size = control->GetMinSize();
    const wxFont font = control->GetFont();
    return wxString::Format("%s '%s' %dx%d %d %d %s%s%s%s", control->GetClassInfo()->GetClassName(),
                            control->GetLabel(), size.x, size.y, font.GetPointSize(), font.GetNumericWeight(),
                            control->GetForegroundColour().GetAsString(wxC2S_HTML_SYNTAX),
                            control->HasFlag(wxTE_PASSWORD) ? " masked" : "",
                            control->HasFlag(wxLI_VERTICAL) ? " upright" : "", control->IsEnabled() ? "" : " disabled");
}

wxString describe(const wxSizer *sizer, const wxString &indent = "\n  ") {
    const bool vertical = dynamic_cast<const wxBoxSizer *>(sizer)->GetOrientation() == wxVERTICAL;
    wxString text = vertical ? "vertical" : "horizontal";
    for (const wxSizerItem *item : sizer->GetChildren()) {
        text += indent + wxString::Format("%d %x %d ", item->GetProportion(), item->GetFlag(), item->GetBorder());
        const wxWindow *control = item->GetWindow();
        text += control ? describe(control) : describe(item->GetSizer(), indent + "  ");
    }
    return text;
}

TEST_F(Window, IsBuiltAsDesigned) {
    build();
    EXPECT_EQ(describe(window->GetSizer()), R"(vertical
  0 2030 0 wxStaticLine '' -1x-1 10 400 #000000
  1 2000 0 horizontal
    0 f0 0 wxStaticBitmap '' -1x-1 10 400 #000000
    0 20c0 10 wxStaticLine '' -1x-1 10 400 #000000 upright
    1 f0 20 vertical
      0 40 20 wxStaticText 'User Name' -1x-1 10 700 #000000
      0 40 4 wxTextCtrl '' 240x-1 10 400 #000000
      0 40 15 wxStaticText 'Password' -1x-1 10 700 #000000
      0 40 4 wxTextCtrl '' 240x-1 10 400 #000000 masked
      0 40 20 horizontal
        0 20 5 wxButton 'LogIn' 110x30 10 700 #000000
        0 0 0 wxButton 'LogOut' 110x30 10 700 #000000 disabled
      0 40 6 horizontal
        0 20 5 wxButton 'Korvane' 110x30 10 700 #000000 disabled
        0 0 0 wxButton 'Exit' 110x30 10 700 #000000
      0 40 8 wxStaticText '' 230x-1 10 700 #FF0000)");

    wxString tooltip; // the tray's icon is a top-level window of this process, plugged into the tray's own
    for (GList *each = gtk_window_list_toplevels(); each; each = g_list_delete_link(each, each)) {
        if (GTK_IS_PLUG(each->data))
            tooltip +=
                wxString::FromUTF8(wxCharBuffer::CreateOwned(gtk_widget_get_tooltip_text(GTK_WIDGET(each->data))));
    }
    EXPECT_EQ(tooltip, "Korvane");
    EXPECT_EQ(child(kUser)->GetBackgroundColour(), *wxWHITE);
    EXPECT_EQ(child(kPassword)->GetBackgroundColour(), *wxWHITE);
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
}

TEST_F(Window, BannerHasItsSizeWhateverThePictures) {
    const std::pair<wxSize, int> table[] = {
        {{400, 300}, 22}, {{1, 1}, 22}, {{1000, 37}, 1}, {{0, 0}, 0}, {{-1, -1}, -1}};
    for (const auto &[size, tray] : table) {
        testing::internal::CaptureStderr();
        build(size, tray);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(child(kBanner)->GetSize(), wxSize(400, 300));
        EXPECT_EQ(window->GetIcons().GetIconCount(), size.x > 0 ? 1u : 0u);
        const wxImage shown = dynamic_cast<wxStaticBitmap *>(child(kBanner))->GetBitmap().ConvertToImage();
        EXPECT_EQ(shown.GetRed(200, 150), size.x > 0 ? 0 : window->GetBackgroundColour().Red());
        delete window;
    }
}

TEST_F(Window, FieldsSpeakTheLocalesEncoding) {
    ASSERT_EQ(std::system("localedef -i de_DE -f ISO-8859-1 /tmp/latin-1"), 0);
    setenv("LOCPATH", "/tmp", 1);
    build();
    const std::pair<const char *, std::string> table[] = {{"C.UTF-8", "J\xC3\xBC"}, {"latin-1", "J\xFC"}};
    for (const auto &[locale, bytes] : table) {
        ASSERT_TRUE(std::setlocale(LC_ALL, locale));
        window->SetUsername(bytes);
        window->SetPassword(bytes);
        EXPECT_EQ(dynamic_cast<wxTextCtrl *>(child(kUser))->GetValue(), L"J\u00FC");
        EXPECT_EQ(window->GetUsername(), bytes);
        EXPECT_EQ(window->GetPassword(), bytes);
    }
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(window->GetUsername(), "");
    child(kCaption)->Move(1, 1);
    wxCommandEvent press(wxEVT_BUTTON, child(kLogIn)->GetId());
    child(kLogIn)->ProcessWindowEvent(press);
    EXPECT_EQ(message(), "Please fill both the fields.");
    EXPECT_EQ(child(kCaption)->GetPosition(), wxPoint(1, 1));
}

TEST_F(Window, LogInChecksTheFields) {
    build();
    window->Show(true);
    ASSERT_TRUE(comesToTheFront());
    EXPECT_EQ(window->GetClientSize(), window->GetSizer()->GetMinSize());
    // What is said; and whether what was displaced is back in its place.
    const std::tuple<const char *, const char *, const char *, bool> table[] = {
        {"", "", "User Id can't be blank.", true},
        {"alice", "", "Password can't be blank.", true},
        {"alice", "secret", "", false},
        {"", "secret", "User Id can't be blank.", true},
        {"  ", " ", "", false}};
    const wxPoint home = child(kCaption)->GetPosition();
    for (const auto &[user, password, said, laidOut] : table) {
        window->SetUsername(user);
        window->SetPassword(password);
        child(kCaption)->Move(1, 1);
        click(child(kLogIn));
        EXPECT_TRUE(until([&, said = said] { return message() == said; })) << message();
        EXPECT_EQ(child(kCaption)->GetPosition(), laidOut ? home : wxPoint(1, 1)) << said;
    }
}

TEST_F(Window, StaysOpenAndComesBackFromTheTray) {
    build();
    window->Show(true);
    ASSERT_TRUE(comesToTheFront());
    click(child(kExit));
    window->Close(true);
    act("wmctrl -c :ACTIVE:");
    pump();
    ASSERT_TRUE(window && window->IsShown());

    act("xdotool getactivewindow windowminimize");
    ASSERT_TRUE(until([this] { return !window || !window->IsShown(); }) && window);
    clickTray(3);
    clickTray(2);
    act("xdotool mousemove 0 0"); // comes after them
    pump();
    EXPECT_FALSE(window->IsShown());
    clickTray(1);
    EXPECT_TRUE(comesToTheFront());

    wxFrame other(nullptr, wxID_ANY, "in front of it");
    other.Maximize();
    other.Show();
    ASSERT_TRUE(until([&] { return other.IsActive(); }));
    clickTray(1);
    EXPECT_TRUE(comesToTheFront());
    click(child(kLogIn));
    EXPECT_TRUE(until([this] { return message() == "User Id can't be blank."; }));

    window->Bind(wxEVT_ICONIZE, [](wxIconizeEvent &) {}); // keeps it from being hidden
    act("xdotool getactivewindow windowminimize");
    ASSERT_TRUE(until([this] { return window->IsIconized(); }));
    window->restored = false;
    clickTray(1);
    EXPECT_TRUE(comesToTheFront());
    EXPECT_TRUE(window->restored);
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
    child(kUser)->Destroy(); // a child's end is not the window's
    icon = new KorvaneTrayIcon(window);
    icon->ProcessEvent(click);
    EXPECT_TRUE(window->IsShown()); // by the click itself, before anything else happens
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
