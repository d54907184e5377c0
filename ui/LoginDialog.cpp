// The login window's layout and event handlers.
#include "ui/LoginDialog.h"

#include "platform/Platform.h"
#include "ui/KorvaneTrayIcon.h"

#include <filesystem>
#include <memory>
#include <wx/button.h>
#include <wx/gdicmn.h>
#include <wx/icon.h>
#include <wx/image.h>
#include <wx/log.h>
#include <wx/sizer.h>
#include <wx/statbmp.h>
#include <wx/statline.h>
#include <wx/stattext.h>
#include <wx/textctrl.h>

namespace {

constexpr int kBannerWidth = 400;
constexpr int kBannerHeight = 300;

wxColour windowGrey() {
    return wxColour(240, 240, 240);
}

wxFont boldFont() {
    return wxFont(10, wxFONTFAMILY_DEFAULT, wxFONTSTYLE_NORMAL, wxFONTWEIGHT_BOLD);
}

wxFont normalFont() {
    return wxFont(10, wxFONTFAMILY_DEFAULT, wxFONTSTYLE_NORMAL, wxFONTWEIGHT_NORMAL);
}

wxString localeText(const std::string &text) {
    return wxString(text.data(), wxConvLibc, text.size());
}

wxString fileName(const std::string &path) {
    return wxString(path.c_str(), *wxConvFileName);
}

std::string fieldText(const wxTextCtrl *field) {
    return field->GetValue().ToStdString(wxConvLibc);
}

// Without wxLogNull, wxWidgets shows a dialog about a picture that it cannot load.
wxBitmap loadBanner(const wxString &file) {
    const wxLogNull silence;
    return wxBitmap(file, wxBITMAP_TYPE_BMP);
}

// Always kBannerWidth x kBannerHeight: a banner that cannot be shown is replaced by the plain
// window colour.
wxImage bannerImage(const wxBitmap &banner) {
    if (banner.IsOk()) {
        const wxImage scaled =
            banner.ConvertToImage().Rescale(kBannerWidth, kBannerHeight, wxIMAGE_QUALITY_BICUBIC);
        if (scaled.IsOk())
            return scaled;
    }
    wxImage plain(kBannerWidth, kBannerHeight);
    const wxColour grey = windowGrey();
    plain.SetRGB(wxRect(plain.GetSize()), grey.Red(), grey.Green(), grey.Blue());
    return plain;
}

wxIcon loadTrayPicture(const wxString &file) {
    const wxLogNull silence;
    wxIcon picture;
    picture.LoadFile(file, wxBITMAP_TYPE_PNG);
    return picture;
}

void addCaption(LoginDialog *window, wxSizer *column, const wxString &text, int border) {
    auto *caption = new wxStaticText(window, wxID_ANY, text);
    caption->SetFont(boldFont());
    caption->SetForegroundColour(*wxBLACK);
    column->Add(caption, 0, wxTOP, border);
}

wxTextCtrl *addField(LoginDialog *window, wxSizer *column, long style) {
    auto *field = new wxTextCtrl(window, wxID_ANY, "", wxDefaultPosition, wxSize(240, -1), style);
    field->SetFont(normalFont());
    field->SetForegroundColour(*wxBLACK);
    field->SetBackgroundColour(*wxWHITE);
    column->Add(field, 0, wxTOP, 4);
    return field;
}

wxButton *newButton(LoginDialog *window, const wxString &text) {
    return new wxButton(window, wxID_ANY, text, wxDefaultPosition, wxSize(110, 30));
}

// One of the two buttons is disabled, for good.
void addButtonRow(wxSizer *column, int border, wxButton *left, wxButton *right,
                  wxButton *disabled) {
    const wxFont font = boldFont();
    left->SetFont(font);
    right->SetFont(font);
    disabled->Enable(false);
    left->SetForegroundColour(*wxBLACK);
    right->SetForegroundColour(*wxBLACK);

    auto row = std::make_unique<wxBoxSizer>(wxHORIZONTAL);
    row->Add(left, 0, wxRIGHT, 5);
    row->Add(right, 0, 0, 0);
    column->Add(row.release(), 0, wxTOP, border);
}

} // namespace

LoginDialog::LoginDialog(wxWindow *parent) : wxFrame(parent, wxID_ANY, "") {
    SetBackgroundColour(windowGrey());
    SetForegroundColour(*wxBLACK);

    // Each sizer is owned here until the step that adds it: an exception before that frees it.
    auto main = std::make_unique<wxBoxSizer>(wxVERTICAL);
    main->Add(new wxStaticLine(this, wxID_ANY, wxDefaultPosition, wxDefaultSize, wxLI_HORIZONTAL),
              0, wxEXPAND | wxLEFT | wxRIGHT, 0);

    auto content = std::make_unique<wxBoxSizer>(wxHORIZONTAL);
    const std::string folder =
        std::filesystem::path(getExecutablePath()).parent_path().string() + "/";
    const wxString bannerFile = fileName(folder + "Korvane.bmp");
    const wxBitmap banner(bannerImage(loadBanner(bannerFile)));
    content->Add(new wxStaticBitmap(this, wxID_ANY, wxBitmapBundle(banner)), 0, wxALL, 0);
    content->Add(new wxStaticLine(this, wxID_ANY, wxDefaultPosition, wxDefaultSize, wxLI_VERTICAL),
                 0, wxEXPAND | wxTOP | wxBOTTOM, 10);

    auto form = std::make_unique<wxBoxSizer>(wxVERTICAL);
    addCaption(this, form.get(), "User Name", 20);
    m_usernameCtrl = addField(this, form.get(), 0);
    addCaption(this, form.get(), "Password", 15);
    m_passwordCtrl = addField(this, form.get(), wxTE_PASSWORD);

    m_loginButton = newButton(this, "LogIn");
    m_logoutButton = newButton(this, "LogOut");
    addButtonRow(form.get(), 20, m_loginButton, m_logoutButton, m_logoutButton);
    m_korvaneButton = newButton(this, "Korvane");
    m_exitButton = newButton(this, "Exit");
    addButtonRow(form.get(), 6, m_korvaneButton, m_exitButton, m_korvaneButton);

    m_errorLabel = new wxStaticText(this, wxID_ANY, "", wxDefaultPosition, wxSize(230, -1));
    m_errorLabel->SetForegroundColour(*wxStockGDI::GetColour(wxStockGDI::COLOUR_RED));
    m_errorLabel->SetFont(boldFont());
    form->Add(m_errorLabel, 0, wxTOP, 8);

    content->Add(form.release(), 1, wxALL, 20);
    main->Add(content.release(), 1, wxEXPAND, 0);
    SetSizer(main.release(), true);
    Fit();
    Centre(wxBOTH);

    m_trayIcon = new KorvaneTrayIcon(this);
    if (const wxIcon picture = loadTrayPicture(fileName(folder + "offline.png")); picture.IsOk())
        m_trayIcon->SetIcon(wxBitmapBundle(picture), "Korvane");

    if (const wxBitmap bitmap = loadBanner(bannerFile); bitmap.IsOk()) {
        wxIcon icon;
        icon.CopyFromBitmap(bitmap);
        SetIcon(icon);
    }

    Bind(wxEVT_ICONIZE, &LoginDialog::OnIconize, this);
    Bind(wxEVT_CLOSE_WINDOW, &LoginDialog::OnExit, this);
    m_loginButton->Bind(wxEVT_BUTTON, &LoginDialog::OnLogin, this);
    m_logoutButton->Bind(wxEVT_BUTTON, &LoginDialog::OnLogout, this);
    m_korvaneButton->Bind(wxEVT_BUTTON, &LoginDialog::OnKorvane, this);
    m_exitButton->Bind(wxEVT_BUTTON, &LoginDialog::OnExitButton, this);
}

LoginDialog::~LoginDialog() {}

void LoginDialog::SetUsername(const std::string &username) {
    m_usernameCtrl->SetValue(localeText(username));
}

void LoginDialog::SetPassword(const std::string &password) {
    m_passwordCtrl->SetValue(localeText(password));
}

std::string LoginDialog::GetUsername() const {
    return fieldText(m_usernameCtrl);
}

std::string LoginDialog::GetPassword() const {
    return fieldText(m_passwordCtrl);
}

void LoginDialog::OnLogin(wxCommandEvent &) {
    try {
        if (m_usernameCtrl->GetValue().IsEmpty()) {
            m_errorLabel->SetLabel("User Id can't be blank.");
            Layout();
            return;
        }
        if (m_passwordCtrl->GetValue().IsEmpty()) {
            m_errorLabel->SetLabel("Password can't be blank.");
            Layout();
            return;
        }
        m_errorLabel->SetLabel("");
        // Text that the locale's encoding cannot represent is read as an empty string.
        if (GetUsername().empty() || GetPassword().empty())
            m_errorLabel->SetLabel("Please fill both the fields.");
    } catch (...) {
    }
}

void LoginDialog::OnLogout(wxCommandEvent &) {}

void LoginDialog::OnKorvane(wxCommandEvent &) {}

void LoginDialog::OnExitButton(wxCommandEvent &) {}

void LoginDialog::OnIconize(wxIconizeEvent &event) {
    if (event.IsIconized()) {
        Hide();
    } else {
        Show(true);
        Raise();
    }
}

// Consumes the event: if it were skipped, wxWidgets would destroy the window.
void LoginDialog::OnExit(wxCloseEvent &) {}

std::string trimString(const std::string &text) {
    constexpr const char *kBlanks = " \t\n\r";
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}
