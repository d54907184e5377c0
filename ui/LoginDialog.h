// The login window.
#pragma once

#include <string>
#include <wx/frame.h>

class KorvaneTrayIcon;
class wxButton;
class wxCloseEvent;
class wxIconizeEvent;
class wxStaticText;
class wxTextCtrl;

// A credentials window with an icon in the menu bar. It is built hidden, checks its two fields when "LogIn" is pressed,
// hides when minimised, and stays open whatever asks it to close; only its owner destroys it. On macOS nothing brings a
// minimised window back (see KorvaneTrayIcon). Its pictures lie beside the executable; without them it looks plainer
// and works the same, in silence. Main thread only.
class LoginDialog : public wxFrame {
  public:
    explicit LoginDialog(wxWindow *parent);
    ~LoginDialog() override;

    // The fields' texts, in the encoding of the process's current locale. Text that the encoding cannot represent reads
    // as the empty text.
    void SetUsername(const std::string &username);
    void SetPassword(const std::string &password);
    std::string GetUsername() const;
    std::string GetPassword() const;

  private:
    void OnLogin(wxCommandEvent &event);
    void OnLogout(wxCommandEvent &event);
    void OnKorvane(wxCommandEvent &event);
    void OnExitButton(wxCommandEvent &event);
    void OnIconize(wxIconizeEvent &event);
    void OnExit(wxCloseEvent &event);

    wxTextCtrl *m_usernameCtrl;
    wxTextCtrl *m_passwordCtrl;
    wxStaticText *m_errorLabel;
    wxButton *m_loginButton;
    wxButton *m_logoutButton;
    wxButton *m_korvaneButton;
    wxButton *m_exitButton;
    KorvaneTrayIcon *m_trayIcon; // frees itself after this window's destruction
};

// Returns text without the blanks, tabs, line feeds and carriage returns at its two ends. Nobody calls it yet.
std::string trimString(const std::string &text);
