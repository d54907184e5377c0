// The login window and its tray icon: what is built, and what mouse and keyboard do to it. Runs on
// a real X server with a window manager and a tray. Leaves a picture of the window in each of its
// states in the current folder.
#include "ui/KorvaneTrayIcon.h"
#include "ui/LoginDialog.h"

#include <clocale>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <gtk/gtk.h>
#include <gtk/gtkx.h>
#include <wx/evtloop.h>
#include <wx/uiaction.h>
#include <wx/weakref.h>
#include <wx/wx.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const fs::path kFolder = fs::read_symlink("/proc/self/exe").parent_path();

// Handles events until the condition holds.
bool until(auto condition, std::chrono::milliseconds limit = 60s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        wxTheApp->Yield();
        wxTheApp->ProcessIdle();
        wxMilliSleep(5);
    }
    return condition();
}

// Notes what it is told: raising restores as well, and window managers raise what they restore.
struct NotingWindow : LoginDialog {
    using LoginDialog::LoginDialog;
    void Iconize(bool minimise) override {
        restored = !minimise;
    }
    void Raise() override {
        raised = true;
        LoginDialog::Raise();
    }
    bool restored = false;
    bool raised = false;
};

// The window's controls of interest, by their place among its children.
enum Child {
    kBanner = 1,
    kCaption = 3,
    kUser = 4,
    kPassword = 6,
    kLogIn = 7,
    kExit = 10,
    kMessage = 11
};

// The icon's place in the tray: a window of this process, plugged into the tray's own. Null while
// there is none.
GtkWidget *trayIcon() {
    g_autoptr(GList) windows = gtk_window_list_toplevels();
    GList *found = windows;
    while (found && !GTK_IS_PLUG(found->data))
        found = found->next;
    return found ? GTK_WIDGET(found->data) : nullptr;
}

class Window : public testing::Test {
  protected:
    void build() {
        window = new NotingWindow(nullptr);
    }
    void TearDown() override {
        delete window;
        wxTheApp->Yield();
    }
    wxWindow *child(Child which) const {
        return window->GetChildren().Item(which)->GetData();
    }
    // Clicks where the pointer lights up the button: the window manager may still be placing the
    // window.
    void click(wxWindow *button) {
        EXPECT_TRUE(until([&] {
            mouse.MouseMove(button->GetScreenPosition() + button->GetSize() / 2);
            return gtk_widget_get_state_flags(button->GetHandle()) & GTK_STATE_FLAG_PRELIGHT;
        }));
        mouse.MouseClick();
    }
    void clickTray(int button) {
        ASSERT_TRUE(until([] { return trayIcon() && gtk_widget_get_mapped(trayIcon()); }));
        wxPoint place;
        gdk_window_get_origin(gtk_widget_get_window(trayIcon()), &place.x, &place.y);
        mouse.MouseMove(place + wxPoint(5, 5));
        mouse.MouseClick(button);
        gdk_display_sync(gdk_display_get_default()); // a click comes by way of the X server
        wxTheApp->Yield();
    }
    void takePicture(const std::string &name) {
        window->Layout();
        mouse.MouseMove(0, 0);
        until([] { return false; }, 300ms); // what is drawn bit by bit
        const wxSize size = window->GetClientSize();
        GdkWindow *drawn = gtk_widget_get_window(window->GetHandle());
        g_autoptr(GdkPixbuf) picture = gdk_pixbuf_get_from_window(drawn, 0, 0, size.x, size.y);
        gdk_pixbuf_save(picture, (name + ".png").c_str(), "png", nullptr, nullptr);
    }
    bool comesToTheFront() {
        return until(
            [this] { return window->IsShown() && !window->IsIconized() && window->IsActive(); });
    }

    wxWeakRef<NotingWindow> window;
    wxUIActionSimulator mouse;
};

// A line for each of the sizer's items: proportion, flags (2000: wxEXPAND; f0: wxALL; 80, 40, 20,
// 10: bottom, top, right, left), border, what it is. Those of a sizer inside it are indented.
std::string describe(const wxSizer *sizer, const std::string &indent = "\n") {
    wxString text;
    for (const wxSizerItem *item : sizer->GetChildren()) {
        text << indent
             << wxString::Format("%d %x %d ", item->GetProportion(), item->GetFlag(),
                                 item->GetBorder());
        if (const auto *inner = dynamic_cast<const wxBoxSizer *>(item->GetSizer())) {
            text << (inner->IsVertical() ? "column" : "row") << describe(inner, indent + "  ");
            continue;
        }
        const wxWindow *control = item->GetWindow();
        const wxFont font = control->GetFont();
        text << control->GetClassInfo()->GetClassName()
             << wxString::Format(" '%s' ", control->GetLabel()) << control->GetMinSize().x << "x"
             << control->GetMinSize().y << " " << font.GetPointSize() << " "
             << font.GetNumericWeight() << " "
             << control->GetForegroundColour().GetAsString(wxC2S_HTML_SYNTAX)
             << (control->HasFlag(wxTE_PASSWORD) ? " masked" : "")
             << (control->HasFlag(wxLI_VERTICAL) ? " upright" : "")
             << (control->IsEnabled() ? "" : " disabled");
    }
    return text.ToStdString();
}

TEST_F(Window, IsBuiltAsDesigned) {
    fs::remove("/tmp/korvane_debug.txt");
    build();
    EXPECT_TRUE(fs::exists("/tmp/korvane_debug.txt")) << "the path trace";
    EXPECT_EQ(describe(window->GetSizer()), R"(
0 2030 0 wxStaticLine '' -1x-1 10 400 #000000
1 2000 0 row
  0 f0 0 wxStaticBitmap '' -1x-1 10 400 #000000
  0 20c0 10 wxStaticLine '' -1x-1 10 400 #000000 upright
  1 f0 20 column
    0 40 20 wxStaticText 'User Name' -1x-1 10 700 #000000
    0 40 4 wxTextCtrl '' 240x-1 10 400 #000000
    0 40 15 wxStaticText 'Password' -1x-1 10 700 #000000
    0 40 4 wxTextCtrl '' 240x-1 10 400 #000000 masked
    0 40 20 row
      0 20 5 wxButton 'LogIn' 110x30 10 700 #000000
      0 0 0 wxButton 'LogOut' 110x30 10 700 #000000 disabled
    0 40 6 row
      0 20 5 wxButton 'Korvane' 110x30 10 700 #000000 disabled
      0 0 0 wxButton 'Exit' 110x30 10 700 #000000
    0 40 8 wxStaticText '' 230x-1 10 700 #FF0000)");
    g_autofree char *tooltip = gtk_widget_get_tooltip_text(trayIcon());
    EXPECT_STREQ(tooltip, "Korvane");
    for (const Child field : {kUser, kPassword})
        EXPECT_TRUE(child(field)->UseBgCol() && child(field)->GetBackgroundColour() == *wxWHITE);
    EXPECT_EQ(window->GetBackgroundColour(), wxColour(240, 240, 240));
    EXPECT_EQ(window->GetForegroundColour(), *wxBLACK);
    EXPECT_EQ(window->GetWindowStyle() & ~wxTAB_TRAVERSAL, wxDEFAULT_FRAME_STYLE);
    EXPECT_TRUE(window->GetTitle().empty() && !window->IsShown());
    const wxRect screen = wxGetClientDisplayRect();
    const wxPoint offset =
        window->GetPosition() + window->GetSize() / 2 - screen.GetPosition() - screen.GetSize() / 2;
    EXPECT_TRUE(std::abs(offset.x) <= 1 && std::abs(offset.y) <= 1) << offset.x << ", " << offset.y;
}

TEST_F(Window, FieldsSpeakTheLocalesEncoding) {
    build();
    std::setlocale(LC_ALL, "C.UTF-8");
    window->SetUsername("J\xC3\xBC");
    window->SetPassword("p\xC3\xBC");
    EXPECT_EQ(dynamic_cast<wxTextCtrl *>(child(kUser))->GetValue(), L"J\u00FC");
    EXPECT_EQ(window->GetUsername() + window->GetPassword(), "J\xC3\xBCp\xC3\xBC");
    std::setlocale(LC_ALL, "C");
    wxCommandEvent press(wxEVT_BUTTON, child(kLogIn)->GetId());
    child(kLogIn)->ProcessWindowEvent(press);
    window->SetUsername("J\xC3\xBC");
    EXPECT_NE(dynamic_cast<wxTextCtrl *>(child(kUser))->GetValue(), L"J\u00FC");
    std::setlocale(LC_ALL, "C.UTF-8");
    EXPECT_EQ(child(kMessage)->GetLabel(), "Please fill both the fields.");
}

TEST_F(Window, LogInChecksTheFields) {
    build();
    EXPECT_EQ(window->GetClientSize(), window->GetSizer()->GetMinSize());
    window->Show(true);
    ASSERT_TRUE(comesToTheFront());
    window->Fit(); // showing it for the first time, GTK takes its title bar's height off its height
    takePicture("fresh");
    // What is said; and whether what was displaced is back in its place.
    const std::tuple<const char *, const char *, const char *, bool, const char *> table[] = {
        {"", "", "User Id can't be blank.", true, "no-user-name"},
        {"alice", "", "Password can't be blank.", true, "no-password"},
        {"alice", "secret", "", false, "filled"},
        {"", "secret", "User Id can't be blank.", true, "password-alone"},
        {"  ", " ", "", false, "blanks"}};
    const wxPoint home = child(kCaption)->GetPosition();
    for (const auto &[user, password, said, laidOut, name] : table) {
        window->SetUsername(user);
        window->SetPassword(password);
        child(kCaption)->Move(1, 1);
        click(child(kLogIn));
        EXPECT_TRUE(until([&, said = said] { return child(kMessage)->GetLabel() == said; }))
            << said;
        EXPECT_EQ(child(kCaption)->GetPosition(), laidOut ? home : wxPoint(1, 1)) << said;
        takePicture(name);
    }
}

TEST_F(Window, StaysOpenAndComesBackFromTheTray) {
    build();
    window->Show(true);
    ASSERT_TRUE(comesToTheFront());
    click(child(kExit));
    window->Close();
    window->Close(true);
    wxTheApp->Yield();
    ASSERT_TRUE(window && window->IsShown());

    window->wxFrame::Iconize(true);
    ASSERT_TRUE(until([this] { return !window->IsShown(); }));
    clickTray(wxMOUSE_BTN_RIGHT);
    clickTray(wxMOUSE_BTN_MIDDLE);
    EXPECT_FALSE(window->IsShown());
    window->raised = false;
    clickTray(wxMOUSE_BTN_LEFT);
    EXPECT_TRUE(comesToTheFront() && window->raised);
}

TEST_F(Window, WindowAndIconGoInAnyOrder) {
    build();
    wxTaskBarIconEvent click(wxEVT_TASKBAR_LEFT_DOWN, nullptr);

    wxWeakRef<KorvaneTrayIcon> icon = new KorvaneTrayIcon(window);
    delete icon;
    icon = new KorvaneTrayIcon(window);
    EXPECT_TRUE(trayIcon());
    delete window;
    ASSERT_TRUE(icon);
    icon->ProcessEvent(click); // as one that was under way: the window is gone, the icon nearly
    EXPECT_TRUE(until([&] { return !icon && !trayIcon(); }));

    build();
    child(kUser)->Destroy(); // a child's end is not the window's
    icon = new KorvaneTrayIcon(window);
    icon->ProcessEvent(click);
    EXPECT_TRUE(window->IsShown() &&
                window->restored); // by the click itself, before anything else happens

    window->Hide();
    window->raised = false;
    wxIconizeEvent restored(window->GetId(), false);
    window->ProcessWindowEvent(restored);
    EXPECT_TRUE(window->raised && window->IsShown());
}

// The last one: it leaves other pictures beside the executable.
TEST_F(Window, BannerHasItsSizeWhateverThePictures) {
    for (const std::string picture : {"wide", "broken", "gone"}) {
        for (const char *name : {"Korvane.bmp", "offline.png"}) {
            fs::remove(kFolder / name);
            if (picture == "broken")
                std::ofstream(kFolder / name) << "no picture";
        }
        if (picture == "wide")
            wxImage(1000, 37).SaveFile((kFolder / "Korvane.bmp").string(), wxBITMAP_TYPE_BMP);
        testing::internal::CaptureStderr();
        build();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(child(kBanner)->GetSize(), wxSize(400, 300));
        EXPECT_EQ(window->GetIcons().GetIconCount(), picture == "wide" ? 1u : 0u);
        const wxImage shown =
            dynamic_cast<wxStaticBitmap *>(child(kBanner))->GetBitmap().ConvertToImage();
        EXPECT_EQ(shown.GetRed(200, 150),
                  picture == "wide" ? 0 : window->GetBackgroundColour().Red());
        delete window;
    }
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    wxApp::SetInstance(new wxApp);
    const wxInitializer initialised(argc, argv);
    wxInitAllImageHandlers();
    wxEventLoop loop;
    const wxEventLoopActivator activate(&loop);
    return RUN_ALL_TESTS();
}
