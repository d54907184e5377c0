// The tray icon's events: a click, and the window's destruction.
#include "ui/KorvaneTrayIcon.h"

#include "ui/LoginDialog.h"

wxBEGIN_EVENT_TABLE(KorvaneTrayIcon, wxTaskBarIcon)
    EVT_TASKBAR_LEFT_DOWN(KorvaneTrayIcon::OnLeftClick)
wxEND_EVENT_TABLE()

KorvaneTrayIcon::KorvaneTrayIcon(LoginDialog *dialog)
    : wxTaskBarIcon(wxTBI_CUSTOM_STATUSITEM), m_dialog(dialog) {
    // If the icon is destroyed first, wxWidgets removes this binding: it tracks the handlers that
    // events are bound to.
    m_dialog->Bind(wxEVT_DESTROY, &KorvaneTrayIcon::OnWindowDestroyed, this);
}

KorvaneTrayIcon::~KorvaneTrayIcon() {}

void KorvaneTrayIcon::OnLeftClick(wxTaskBarIconEvent &) {
    m_dialog->Show(true);
    m_dialog->Iconize(false);
    m_dialog->Raise();
}

void KorvaneTrayIcon::OnWindowDestroyed(wxWindowDestroyEvent &event) {
    event.Skip();
    if (event.GetWindow() != m_dialog)
        return;
    SetEvtHandlerEnabled(false);
    RemoveIcon();
    Destroy();
}
