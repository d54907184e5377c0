// The launcher's process-wide state, defined by the chief source file.
//
// None of it is ever destroyed: the process may end at any moment while the supervision thread uses it.
#pragma once

#include <string>
#include <thread>

class LoginDialog;

// The one slot holds the supervision thread once start-up has created it, and is never joined or detached:
// CheckLauncher, which joins what runs here, comes before. Main thread only.
extern std::thread (&g_threads)[1];

// Login name of the user who runs the launcher, in the bytes of the environment. Empty until start-up has found it,
// before it creates the supervision thread; not changed afterwards, so that every thread may read it without a lock.
// readExitCheck fills it in for a caller that has not been through start-up.
extern std::string &uname_windows;

// Install folder: absolute, ends in "/", holds both bundles. Empty until start-up has worked it out; then as above.
extern std::string &filepath;

// The login window, if some caller has built one and put it here; start-up does not. Main thread only.
extern LoginDialog *g_dlg;
