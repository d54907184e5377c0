// The login window's icon in the menu bar.
#pragma once

#include <wx/taskbar.h>

class LoginDialog;
class wxWindowDestroyEvent;

// A left click shows the window, restored and in front; there is no menu. On macOS wxWidgets 3.3
// does not send that click to an icon in the menu bar, so there the icon is only a picture. The
// icon never deletes its window. When the window is destroyed, the icon leaves the bar at once and
// handles no more events. wxWidgets frees it when no event is being handled. If the window is
// destroyed by wxWidgets' clean-up at exit, nothing frees the icon. Deleting the icon earlier,
// while the window lives, is fine too. Main thread only.
class KorvaneTrayIcon : public wxTaskBarIcon {
  public:
    // dialog must point to a live window: the constructor binds to its wxEVT_DESTROY.
    explicit KorvaneTrayIcon(LoginDialog *dialog);
    ~KorvaneTrayIcon() override;

  private:
    void OnLeftClick(wxTaskBarIconEvent &event);
    void OnWindowDestroyed(wxWindowDestroyEvent &event);

    LoginDialog *m_dialog;

    wxDECLARE_EVENT_TABLE();
};
