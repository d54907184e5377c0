// Operating-system services.
#pragma once

#include <cstdint>
#include <dispatch/dispatch.h>
#include <string>

namespace Platform {

// Returns the first line of the version marker, the file named appPath + ".version" (appPath: an
// executable's full path), or an empty string when it cannot be read. See readFirstLine.
std::string GetExternalAppVersion(const std::string &appPath);

// Sends SIGTERM to every process that the user may signal and whose command line matches pattern,
// an extended regular expression (pkill(1), option -f). The pattern goes into the shell command
// unescaped. Waits for the command only; its failure is not reported.
void CloseExternalApp(const std::string &pattern);

// Makes launchd start program (a full path, written unescaped) at log-in, from the next one on:
// rewrites the agent file "Library/LaunchAgents/com.mervix.korvane.plist" in the home folder
// (launchd.plist(5)). Creates no folder, and does nothing when the file cannot be opened or HOME is
// not set.
void SetAutoStart(const std::string &program);

// Deletes the agent file. A missing file or an unset HOME is no error; any other failure is thrown
// as std::filesystem::filesystem_error. Nothing calls it yet.
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

// Returns the absolute, resolved path of the running executable; its unresolved path when resolving
// fails; an empty string when the system does not give it. Each call replaces the content of
// "/tmp/korvane_debug.txt" with the path trace, or silently writes none when that cannot be opened
// (see openSharedFile).
std::string getExecutablePath();

// Returns the folder that holds the bundle of the executable at this path: the path's fourth
// parent, without a "/" at the end unless it is the root.
std::string installFolder(const std::string &executablePath);

// Makes every window of the application light, whatever the user's system setting.
void ForceLightMode();
