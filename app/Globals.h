// The launcher's process-wide state. It is defined in the main source file, beside `main`.
//
// None of it is ever destroyed: the supervision thread may be using it when the process ends.
#pragma once

#include <array>
#include <string>
#include <thread>

class LoginDialog;

// The one slot holds the supervision thread once start-up has created it. It is never detached and
// never joined: CheckLauncher would join it, but start-up calls that while the slot is still empty.
// Main thread only.
extern std::array<std::thread, 1> &g_threads;

// Login name of the user who runs the launcher, in the bytes of the environment. Empty until
// start-up sets it, before it creates the supervision thread. It does not change afterwards, so
// every thread may read it without a lock. If start-up has not run, readExitCheck sets it.
extern std::string &uname_windows;

// Install folder: absolute, ends in "/", holds both bundles. Empty until start-up sets it;
// unchanged afterwards.
extern std::string &filepath;

// The login window, or null. Start-up creates none; a caller that creates one puts it here. Main
// thread only.
extern LoginDialog *g_dlg;
