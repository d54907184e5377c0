// The operating system's side: files, processes, the agent file, queries. Runs as an ordinary user,
// with a display.
#include "app/Globals.h"
#include "app/Korvane_Cross_launcher.h"
#include "platform/Platform.h"
#include "supervise/CompanionProcess.h"
#include "supervise/ManualExitFlag.h"
#include "supervise/Supervision.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sys/resource.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const fs::path kFolder = fs::current_path(); // the user's home, empty but for settings

void write(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string read(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

using Value = std::optional<std::string>;

void setVariable(const char *name, const Value &value) {
    value ? setenv(name, value->c_str(), 1) : unsetenv(name);
}

TEST(System, UserIsTheFirstVariableThatIsSet) {
    const std::tuple<Value, Value, std::string> table[] = {
        {"", "bob", ""}, {{}, " b ", " b "}, {{}, {}, "unknown"}, {"alice", "bob", "alice"}};
    for (const auto &[user, logname, name] : table) {
        setVariable("USER", user);
        setVariable("LOGNAME", logname);
        EXPECT_EQ(getOSUsername(), name);
    }
}

TEST(System, CompanionIsGoneWhenNothingCanLookForIt) {
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none = {0, files.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(KR_TitleCheck());
    setrlimit(RLIMIT_NOFILE, &files);
}

TEST(System, FlagOfTheUserEndsSupervisionEvenOfAnEndingProcess) {
    const fs::path flag = kFolder / "alice_ManualExit.txt";
    filepath = kFolder.string() + "/";
    write(kFolder / "elsewhere", "1\nmore");
    fs::create_symlink(kFolder / "elsewhere", flag);
    EXPECT_EQ(readExitCheck(), "1");
    EXPECT_EQ(uname_windows, "alice");
    KR_Status(1); // there is no application object any more
    EXPECT_FALSE(fs::is_symlink(flag));
    EXPECT_TRUE(fs::exists(kFolder / "elsewhere")) << "only the link is deleted";
}

TEST(System, ExecutablePathIsUnresolvedWhenItCannotBeResolved) {
    const fs::path self = fs::read_symlink("/proc/self/exe");
    fs::rename(self.parent_path(), "away");
    EXPECT_EQ(getExecutablePath(), self);
    fs::rename("away", self.parent_path());
}

TEST(System, MarkerIsTheFirstLineOfAtMost64KiB) {
    write("app.version", std::string(5000, 'a') + "\r\nb");
    EXPECT_EQ(Platform::GetExternalAppVersion("app"), std::string(5000, 'a') + "\r");
    write("app.version", std::string(100'000, 'a'));
    EXPECT_EQ(Platform::GetExternalAppVersion("app"), std::string(65536, 'a'));
}

TEST(System, AgentFileAndDesktopAreInTheHomeFolder) {
    const fs::path agent = kFolder / "Library/LaunchAgents/com.mervix.korvane.plist";
    Platform::SetAutoStart("/nowhere");
    EXPECT_FALSE(fs::exists(kFolder / "Library"));
    fs::create_directories(agent.parent_path());
    write(agent, std::string(4000, 'x'));
    Platform::SetAutoStart("/a & b/Korvane");
    const std::string content = read(agent);
    EXPECT_NE(content.find("<string>/a & b/Korvane</string>\n"), std::string::npos) << content;
    EXPECT_TRUE(content.starts_with("<?xml") && content.ends_with("</plist>\n")) << content;
    EXPECT_EQ(Platform::GetPublicDesktopPath(), "/Users/Shared/Desktop");
    EXPECT_EQ(Platform::GetUserDesktopPath(), kFolder.string() + "/Desktop");
    setVariable("HOME", "");
    EXPECT_EQ(Platform::GetUserDesktopPath(), "/Desktop");
    setVariable("HOME", std::nullopt);
    Platform::SetAutoStart("/elsewhere");
    Platform::RemoveAutoStart();
    EXPECT_EQ(Platform::GetUserDesktopPath(), "");
    EXPECT_EQ(read(agent), content);
    setVariable("HOME", kFolder);
    Platform::RemoveAutoStart();
    EXPECT_FALSE(fs::exists(agent));
    Platform::RemoveAutoStart();
    fs::create_directories(agent / "not empty");
    EXPECT_THROW(Platform::RemoveAutoStart(), fs::filesystem_error);
}

TEST(System, IdleTimeIsTheDisplays) {
    const auto handles = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto before = handles();
    const auto begin = std::chrono::steady_clock::now();
    const auto elapsed = [&] { return std::chrono::steady_clock::now() - begin; };
    ASSERT_EQ(std::system("xdotool mousemove 10 10"), 0);
    while (Platform::GetIdleTimeSeconds() < 2)
        ASSERT_LT(elapsed(), 60s);
    EXPECT_GE(elapsed(), 2s);
    // And nothing where it cannot be told: by a server that does not count it, one that is not
    // there, and none.
    const Value others[] = {std::getenv("DISPLAY_WITHOUT_IDLE_TIME"), ":999", std::nullopt};
    for (const auto &other : others) {
        setVariable("DISPLAY", other);
        EXPECT_EQ(Platform::GetIdleTimeSeconds(), 0);
    }
    EXPECT_EQ(handles(), before) << "every handle has been released";
}

} // namespace

// In the place of the C library's. Whole seconds take no time.
extern "C" int nanosleep(const timespec *time, timespec *) {
    return time->tv_sec > 0 ? 0 : clock_nanosleep(CLOCK_MONOTONIC, 0, time, nullptr);
}
