// Operating-system services.
#pragma once

#include <cstdint>
#include <dispatch/dispatch.h>
#include <string>

namespace Platform {

// Returns the version marker's text: the first line of the file appPath + ".version", or an empty
// string when there is none. appPath is an executable's full path. See readFirstLine.
std::string GetExternalAppVersion(const std::string &appPath);

// Runs pkill -f: SIGTERM for every process that the user may signal and whose command line matches
// pattern, an extended regular expression. It is not escaped for the shell. Waits for pkill alone.
void CloseExternalApp(const std::string &pattern);

// Makes launchd start program (a full path) at log-in, by rewriting the agent file,
// ~/Library/LaunchAgents/com.mervix.korvane.plist (launchd.plist(5)). The path is not escaped for
// XML. Makes no folder, and reports no failure.
void SetAutoStart(const std::string &program);

// Deletes the agent file, if there is one. Throws std::filesystem::filesystem_error when it cannot.
// Nothing calls it yet.
void RemoveAutoStart();

// Nothing calls the rest of this namespace yet.

// Returns the whole seconds since the user's last input, or 0 when they are not known.
std::int64_t GetIdleTimeSeconds();

// Returns "/Users/Shared/Desktop".
std::string GetPublicDesktopPath();

// Returns the value of HOME followed by "/Desktop", or an empty string when HOME is not set.
std::string GetUserDesktopPath();

// A counting semaphore of libdispatch. SemInit stores a new one in sem, or null for a negative
// value; SemWait blocks without limit until it can take one; SemRelease gives one back. SemDestroy
// does nothing: the semaphore stays usable.
void SemInit(dispatch_semaphore_t &sem, int initialValue);
void SemWait(dispatch_semaphore_t &sem);
void SemRelease(dispatch_semaphore_t &sem);
void SemDestroy(dispatch_semaphore_t &sem);

// Both do nothing: the tray icon is a wxWidgets object, KorvaneTrayIcon.
void InitTrayIcon(const std::string &icon, const std::string &tooltip);
void RemoveTrayIcon();

} // namespace Platform

// Returns the running executable's path, links resolved; unresolved if that fails; an empty string
// if the system does not give it. Writes the path trace, /tmp/korvane_debug.txt, each time anew.
std::string getExecutablePath();

// Returns the folder that holds an executable's bundle, its fourth parent, without "/" at the end.
std::string installFolder(const std::string &executablePath);

// Makes every window of the application light, whatever the user's system setting.
void ForceLightMode();
