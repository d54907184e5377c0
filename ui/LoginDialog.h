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

// Asks for user name and password, and has an icon in the menu bar. It is made hidden, checks its
// fields when "LogIn" is pressed, hides when minimised, and ignores requests to close: only its
// owner destroys it. On macOS nothing brings a minimised window back (see KorvaneTrayIcon). Its
// pictures are beside the executable; without them it works the same. Main thread only.
class LoginDialog : public wxFrame {
  public:
    explicit LoginDialog(wxWindow *parent);
    ~LoginDialog() override;

    // In the encoding of the process's locale. Text that it cannot represent is read as empty.
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
    KorvaneTrayIcon *m_trayIcon; // frees itself once this window is destroyed
};

// Returns text without blanks, tabs and line ends at its ends. Nothing calls it yet.
std::string trimString(const std::string &text);
