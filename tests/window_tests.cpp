// The login window and its tray icon: what is built, and what the mouse does to it. Runs on a real
// X server with a window manager and a tray.
#include "ui/KorvaneTrayIcon.h"
#include "ui/LoginDialog.h"

#include <clocale>
#include <cstring>
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
bool until(auto condition) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
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
enum Child { kBanner = 1, kCaption = 3, kUser = 4, kPassword = 6, kLogIn = 7, kExit = 10, kLabel };

// The icon's window, which is plugged into the tray's, or null.
GtkWidget *trayIcon() {
    g_autoptr(GList) windows = gtk_window_list_toplevels();
    GList *found = windows;
    while (found && !GTK_IS_PLUG(found->data))
        found = found->next;
    return found ? GTK_WIDGET(found->data) : nullptr;
}

// The colour in the middle of what a widget shows.
wxColour colourOf(GtkWidget *widget) {
    GdkWindow *drawn = gtk_widget_get_window(widget);
    const int x = gdk_window_get_width(drawn) / 2, y = gdk_window_get_height(drawn) / 2;
    g_autoptr(GdkPixbuf) picture = gdk_pixbuf_get_from_window(drawn, x, y, 1, 1);
    const guchar *pixel = gdk_pixbuf_get_pixels(picture);
    return wxColour(pixel[0], pixel[1], pixel[2]);
}

class Window : public testing::Test {
  protected:
    void TearDown() override {
        delete window;
        wxTheApp->Yield();
    }
    void show() {
        window->Show(true);
        ASSERT_TRUE(until([this] { return window->IsShown() && window->IsActive(); }));
        window->Fit(); // showing it first, GTK takes its title bar's height off its height
    }
    auto *child(Child which) const {
        return window->GetChildren().Item(which)->GetData();
    }
    auto *field(Child which) const {
        return dynamic_cast<wxTextCtrl *>(child(which));
    }
    wxImage banner() const {
        return dynamic_cast<wxStaticBitmap *>(child(kBanner))->GetBitmap().ConvertToImage();
    }
    // The window manager may still be placing the window: clicks where the button lights up.
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

    wxWeakRef<NotingWindow> window = new NotingWindow(nullptr);
    wxUIActionSimulator mouse;
};

// A line for each item: proportion, flags (2000: wxEXPAND; 80, 40, 20, 10: wxBOTTOM, wxTOP,
// wxRIGHT, wxLEFT), border, what it is. The items of a sizer inside are indented.
std::string describe(const wxSizer *sizer, const std::string &indent = "\n") {
    wxString text;
    for (const wxSizerItem *item : sizer->GetChildren()) {
        text << indent << item->GetProportion() << wxString::Format(" %x ", item->GetFlag())
             << item->GetBorder() << " ";
        if (const auto *inner = dynamic_cast<const wxBoxSizer *>(item->GetSizer())) {
            text << (inner->IsVertical() ? "column" : "row") << describe(inner, indent + "  ");
            continue;
        }
        const wxWindow *control = item->GetWindow();
        const wxFont font = control->GetFont();
        text << control->GetClassInfo()->GetClassName() << " '" << control->GetLabel() << "' "
             << control->GetMinSize().x << "x" << control->GetMinSize().y << " "
             << font.GetPointSize() << " " << font.GetNumericWeight() << " "
             << control->GetForegroundColour().GetAsString(wxC2S_HTML_SYNTAX)
             << (control->HasFlag(wxTE_PASSWORD) ? " masked" : "")
             << (control->HasFlag(wxLI_VERTICAL) ? " upright" : "")
             << (control->IsEnabled() ? "" : " disabled");
    }
    return text.ToStdString();
}

TEST_F(Window, IsBuiltAsDesigned) {
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
    for (const Child which : {kUser, kPassword}) {
        EXPECT_TRUE(field(which)->UseBgCol());
        EXPECT_EQ(field(which)->GetBackgroundColour(), *wxWHITE);
    }
    EXPECT_EQ(window->GetBackgroundColour(), wxColour(240, 240, 240));
    EXPECT_EQ(window->GetForegroundColour(), *wxBLACK);
    EXPECT_EQ(window->GetWindowStyle() & ~wxTAB_TRAVERSAL, wxDEFAULT_FRAME_STYLE);
    EXPECT_EQ(window->GetTitle(), "");
    EXPECT_FALSE(window->IsShown());
    EXPECT_EQ(window->GetClientSize(), window->GetSizer()->GetMinSize());
    const wxRect expected = window->GetRect().CentreIn(wxGetClientDisplayRect());
    EXPECT_NEAR(window->GetPosition().x, expected.x, 1);
    EXPECT_NEAR(window->GetPosition().y, expected.y, 1);
}

TEST_F(Window, FieldsSpeakTheLocalesEncoding) {
    window->SetUsername("J\xC3\xBC");
    window->SetPassword("p\xC3\xBC");
    EXPECT_EQ(field(kUser)->GetValue() + field(kPassword)->GetValue(), L"J\u00FCp\u00FC");
    EXPECT_EQ(window->GetUsername() + window->GetPassword(), "J\xC3\xBCp\xC3\xBC");
    std::setlocale(LC_ALL, "C");
    window->SetUsername("alice");
    wxCommandEvent press(wxEVT_BUTTON, child(kLogIn)->GetId());
    child(kLogIn)->ProcessWindowEvent(press);
    EXPECT_EQ(child(kLabel)->GetLabel(), "Please fill both the fields.");
    std::setlocale(LC_ALL, "C.UTF-8");
}

TEST_F(Window, LogInChecksTheFields) {
    show();
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
        EXPECT_TRUE(until([&, said = said] { return child(kLabel)->GetLabel() == said; })) << said;
        EXPECT_EQ(child(kCaption)->GetPosition(), laidOut ? home : wxPoint(1, 1));
    }
}

TEST_F(Window, StaysOpenAndComesBackFromTheTray) {
    show();
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
    EXPECT_TRUE(until([this] { return window->IsShown() && window->IsActive(); }));
    EXPECT_TRUE(window->raised && window->restored);
    clickTray(wxMOUSE_BTN_LEFT);
    EXPECT_TRUE(window->IsShown());
    EXPECT_EQ(child(kLabel)->GetLabel(), ""); // "Exit" has checked nothing

    window->Hide();
    window->raised = false;
    wxIconizeEvent restored(window->GetId(), false);
    window->ProcessWindowEvent(restored);
    EXPECT_TRUE(window->raised && window->IsShown());
}

TEST_F(Window, WindowAndIconGoInAnyOrder) {
    delete new KorvaneTrayIcon(window);
    wxWeakRef<KorvaneTrayIcon> icon = new KorvaneTrayIcon(window);
    child(kUser)->Destroy(); // a child's end is not the window's
    ASSERT_TRUE(icon && trayIcon());
    delete window;
    ASSERT_TRUE(icon && !trayIcon());
    wxTaskBarIconEvent click(wxEVT_TASKBAR_LEFT_DOWN, nullptr);
    icon->ProcessEvent(click); // as one that was under way: the window is gone, the icon nearly
    EXPECT_TRUE(until([&] { return !icon && !trayIcon(); }));
}

// The last one: it leaves other pictures beside the executable.
TEST_F(Window, ShowsEachPictureInItsPlaceAndSize) {
    const auto build = [this] {
        delete window;
        testing::internal::CaptureStderr();
        window = new NotingWindow(nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(banner().GetSize(), wxSize(400, 300));
    };
    const std::string bannerFile = (kFolder / "Korvane.bmp").string();
    const wxImage small = wxImage(bannerFile).Rescale(123, 77);
    small.SaveFile(bannerFile);
    wxImage blue(22, 22);
    blue.SetRGB(blue.GetSize(), 0, 0, 255);
    blue.SaveFile((kFolder / "offline.png").string());
    build();
    const wxImage expected = small.Scale(400, 300, wxIMAGE_QUALITY_BICUBIC);
    EXPECT_EQ(std::memcmp(banner().GetData(), expected.GetData(), 400 * 300 * 3), 0);
    EXPECT_EQ(window->GetIcons().GetIconByIndex(0).GetSize(), small.GetSize());
    EXPECT_TRUE(until([] { return trayIcon() && colourOf(trayIcon()) == *wxBLUE; }));
    g_autofree char *tooltip = gtk_widget_get_tooltip_text(trayIcon());
    EXPECT_STREQ(tooltip, "Korvane");

    for (const char *name : {"Korvane.bmp", "offline.png"})
        std::ofstream(kFolder / name) << "no picture";
    build();
    EXPECT_EQ(banner().GetRed(9, 9), 240);
    EXPECT_EQ(window->GetIcons().GetIconCount(), 0u);
}

} // namespace

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    wxApp::SetInstance(new wxApp);
    const wxInitializer initialised(argc, argv);
    std::setlocale(LC_ALL, "C.UTF-8");
    wxInitAllImageHandlers();
    wxEventLoop loop;
    const wxEventLoopActivator activate(&loop);
    return RUN_ALL_TESTS();
}
