// The launcher's process-wide state and its start-up sequence.
//
// Including this header from companion/ and supervise/ gives them the globals; the entry point and the application
// class stay in the source file.
#pragma once

#include <string>
#include <thread>

class LoginDialog;

// The one slot holds the supervision thread once start-up has created it. Nothing joins or detaches it.
extern std::thread (&g_threads)[1];

// Login name of the user who runs the launcher, in the bytes of the environment. Written by initStartup, before the
// supervision thread exists, and by nobody afterwards.
extern std::string &uname_windows;

// Install folder: absolute, ends in "/", holds both bundles. Written like uname_windows.
extern std::string &filepath;

// The login window, if some caller has built one; the start-up sequence does not.
extern LoginDialog *g_dlg;

// Keeps a second launcher out with an exclusive record lock on "/tmp/<name>.lock", held until the process ends
// (fcntl(2), F_SETLK). Returns true when the lock is refused, and false when it is held by this process or when the
// lock file cannot be opened at all: a launcher without a lock is better than none.
bool PreventMultipleInstances(const std::string &name);

// The start-up sequence, on the main thread. Ends the process with exit(0) when another launcher runs. Returns with the
// supervision thread running and the login item written, or, for an outdated launcher, with neither. An error creating
// the thread (std::system_error) reaches the caller.
void initStartup();
