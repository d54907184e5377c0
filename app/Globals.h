// The launcher's process-wide state, defined beside `main`. It is never destroyed: the supervision
// thread may be using it when the process ends.
#pragma once

#include <array>
#include <string>
#include <thread>

class LoginDialog;

// The supervision thread, once start-up has created it. Nothing detaches it, and nothing joins it:
// CheckLauncher would, but runs before. Main thread only.
extern std::array<std::thread, 1> &g_threads;

// The login name of the user who runs the launcher. Set once, before the supervision thread exists,
// like filepath: so every thread may read both without a lock.
extern std::string &uname_windows;

// The install folder, which holds both bundles: absolute, with "/" at the end.
extern std::string &filepath;

// The login window, or null. Start-up makes none; whoever makes one puts it here. Main thread only.
extern LoginDialog *g_dlg;
