// The login window's icon in the menu bar.
#pragma once

#include <wx/taskbar.h>

class LoginDialog;
class wxWindowDestroyEvent;

// A left click shows the window, de-minimised and in front; there is no menu. On macOS wxWidgets 3.3 does not send that
// click to an icon in the menu bar, so there the icon is only a picture. The icon never deletes its window. When the
// window is destroyed, the icon removes itself from the bar at once, handles no event any more, and is freed by
// wxWidgets when no event is under way (not in its own clean-up at exit: nobody frees the icon then); deleting it
// earlier, while the window lives, is fine too. Main thread only.
class KorvaneTrayIcon : public wxTaskBarIcon {
  public:
    // The window must be alive, and not be null: the constructor binds to its wxEVT_DESTROY.
    explicit KorvaneTrayIcon(LoginDialog *dialog);
    ~KorvaneTrayIcon() override;

  private:
    void OnLeftClick(wxTaskBarIconEvent &event);
    void OnWindowDestroyed(wxWindowDestroyEvent &event);

    LoginDialog *m_dialog;

    wxDECLARE_EVENT_TABLE();
};
