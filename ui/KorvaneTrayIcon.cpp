// The login window's icon in the menu bar.
#include "ui/KorvaneTrayIcon.h"

#include "ui/LoginDialog.h"

#include <wx/weakref.h>

wxBEGIN_EVENT_TABLE(KorvaneTrayIcon, wxTaskBarIcon)
    EVT_TASKBAR_LEFT_DOWN(KorvaneTrayIcon::OnLeftClick)
wxEND_EVENT_TABLE()

KorvaneTrayIcon::KorvaneTrayIcon(LoginDialog *dialog) : wxTaskBarIcon(wxTBI_CUSTOM_STATUSITEM), m_dialog(dialog) {
    // Undone by the toolkit if the icon goes first: it tracks the handlers that events are bound to.
    m_dialog->Bind(wxEVT_DESTROY, &KorvaneTrayIcon::OnWindowDestroyed, this);
}

KorvaneTrayIcon::~KorvaneTrayIcon() {}

void KorvaneTrayIcon::OnLeftClick(wxTaskBarIconEvent &) {
    // Each step sends events, and a handler of one may destroy the window.
    const wxWeakRef<LoginDialog> window(m_dialog);
    window->Show(true);
    if (window)
        window->Iconize(false);
    if (window)
        window->Raise();
}

void KorvaneTrayIcon::OnWindowDestroyed(wxWindowDestroyEvent &event) {
    event.Skip();
    if (event.GetWindow() != m_dialog)
        return;
    SetEvtHandlerEnabled(false);
    RemoveIcon();
    Destroy();
}
