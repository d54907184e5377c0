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

// Asks for user name and password, and has an icon in the menu bar. It is created hidden, checks
// its two fields when "LogIn" is pressed, hides when minimised, and ignores requests to close; only
// its owner destroys it. On macOS nothing brings a minimised window back (see KorvaneTrayIcon). Its
// pictures are beside the executable; without them it looks plainer, works the same and reports
// nothing. Main thread only.
class LoginDialog : public wxFrame {
  public:
    explicit LoginDialog(wxWindow *parent);
    ~LoginDialog() override;

    // The fields' texts, in the encoding of the process's current locale. Text that the encoding
    // cannot represent is read as an empty string.
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

// Returns text without spaces, tabs, line feeds and carriage returns at either end. Nothing calls
// it yet.
std::string trimString(const std::string &text);
