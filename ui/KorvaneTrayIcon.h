// The login window's icon in the menu bar.
#pragma once

#include <wx/taskbar.h>

class LoginDialog;
class wxWindowDestroyEvent;

// A left click shows the window, restored and in front. On macOS wxWidgets 3.3 sends no such click
// to an icon in the menu bar, so there it is only a picture. When the window is destroyed, the icon
// leaves the bar and frees itself; it may also be deleted before. Main thread only.
class KorvaneTrayIcon : public wxTaskBarIcon {
  public:
    // dialog is a live window.
    explicit KorvaneTrayIcon(LoginDialog *dialog);
    ~KorvaneTrayIcon() override;

  private:
    void OnLeftClick(wxTaskBarIconEvent &event);
    void OnWindowDestroyed(wxWindowDestroyEvent &event);

    LoginDialog *m_dialog;

    wxDECLARE_EVENT_TABLE();
};
