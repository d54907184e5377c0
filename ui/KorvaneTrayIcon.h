// The login window's icon in the menu bar.
#pragma once

#include <wx/taskbar.h>

class LoginDialog;
class wxWindowDestroyEvent;

// A left click shows the window, de-minimised and in front; there is no menu. The icon never deletes its window. When
// the window is destroyed, the icon removes itself from the bar at once, handles no event any more, and is freed by the
// toolkit when no event is under way; deleting it earlier, while the window lives, is fine too. Main thread only.
class KorvaneTrayIcon : public wxTaskBarIcon {
  public:
    explicit KorvaneTrayIcon(LoginDialog *dialog);
    ~KorvaneTrayIcon() override;

  private:
    void OnLeftClick(wxTaskBarIconEvent &event);
    void OnWindowDestroyed(wxWindowDestroyEvent &event);

    LoginDialog *m_dialog;

    wxDECLARE_EVENT_TABLE();
};
