// What the launcher takes the system to mean, and what it makes of files, processes and the
// environment. On a Mac the system is macOS, on Linux it is compat/. Harmless to everything else.
#include "app/Korvane_Cross_launcher.h"
#include "platform/Closing.h"
#include "platform/Platform.h"
#include "platform/UniqueFd.h"
#include "supervise/CompanionProcess.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <mach-o/dyld.h>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const std::string kName = "m" + std::to_string(getpid()) + "eant"; // Linux cuts it at 15 characters
const std::string kFolder = fs::canonical(fs::temp_directory_path()) / kName / "";
std::string self(4096, '\0');

std::string copyTo(const std::string &path) {
    fs::create_directories(fs::path(path).parent_path());
    fs::copy_file(self, path);
    return path;
}

auto start(const std::string &command) {
    return std::unique_ptr<std::FILE, Closing<pclose>>(popen(command.c_str(), "r"));
}

std::string line(const auto &file) {
    char text[4096] = "";
    return std::fgets(text, sizeof text, file.get()) ? text : "";
}

void write(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

using Value = std::optional<std::string>;

void setVariable(const char *name, const Value &value) {
    value ? setenv(name, value->c_str(), 1) : unsetenv(name);
}

// The tools' ancestor, this process, has that name, and that pattern in its command line.
TEST(System, ProcessesAreFoundByExactNameAndEndedByPattern) {
    auto stays = start("exec " + self + " stay");
    const std::string pid = line(stays);
    EXPECT_EQ(line(start("echo $(pgrep -x " + kName + ")")), pid);
    EXPECT_EQ(line(start("pgrep -x " + kName.substr(0, kName.size() - 1))), "");
    Platform::CloseExternalApp(self);
    const int status = pclose(stays.release());
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(System, CompanionIsGoneWhenNothingCanLookForIt) {
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none = {0, files.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(KR_TitleCheck());
    setrlimit(RLIMIT_NOFILE, &files);
}

TEST(System, ExecutablePathIsTheOneStarted) {
    std::uint32_t size = self.size(); // no room for the zero byte
    std::string buffer(size, '.');
    EXPECT_EQ(_NSGetExecutablePath(buffer.data(), &size), -1);
    EXPECT_EQ(size, self.size() + 1);
    EXPECT_EQ(buffer, std::string(self.size(), '.'));
    const std::string launcher = copyTo(kFolder + "Korvane.app/Contents/MacOS/Korvane");
    fs::create_symlink(launcher, kFolder + "link");
    fs::create_symlink("../Korvane", kFolder + "Korvane.app/link"); // to the log-in program
    EXPECT_EQ(line(start(kFolder + "link where")), kFolder + "link\n");
    EXPECT_EQ(line(start(kFolder + "Korvane.app/link where")), launcher + "\n");
    const std::string folder = kFolder.substr(0, kFolder.size() - 1);
    fs::rename(folder, folder + "away"); // so it cannot be resolved
    EXPECT_EQ(getExecutablePath(), self);
    fs::rename(folder + "away", folder);
}

TEST(System, FilesReachStableStorageAndReplaceOthers) {
    for (const auto &path : {self, kFolder})
        EXPECT_EQ(fcntl(UniqueFd(open(path.c_str(), O_RDONLY)).get(), F_FULLFSYNC), 0) << path;
    fs::rename(copyTo(kFolder + "newer"), self); // while it runs
    fs::permissions(self, fs::perms::owner_read | fs::perms::owner_exec);
    fs::rename(copyTo(kFolder + "newest"), self); // and read-only
}

TEST(System, SemaphoresBlockUntilReleased) {
    static dispatch_semaphore_t semaphore = nullptr; // nothing frees it
    Platform::SemInit(semaphore, 1);
    Platform::SemWait(semaphore);
    const auto waiter = std::async(std::launch::async, Platform::SemWait, std::ref(semaphore));
    EXPECT_EQ(waiter.wait_for(20ms), std::future_status::timeout);
    Platform::SemRelease(semaphore);
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

TEST(System, AgentFileAndDesktopAreInTheHomeFolder) {
    const fs::path agent = kFolder + "Library/LaunchAgents/com.mervix.korvane.plist";
    setVariable("HOME", kFolder);
    Platform::SetAutoStart("/nowhere");
    EXPECT_FALSE(fs::exists(kFolder + "Library"));
    fs::create_directories(agent.parent_path());
    write(agent, std::string(4000, 'x'));
    Platform::SetAutoStart("/a & b/Korvane");
    const std::string count = "grep -c -e '>/a & b/Korvane<' -e '^</dict></plist>$' ";
    EXPECT_EQ(line(start(count + agent.string())), "2\n");
    EXPECT_EQ(Platform::GetPublicDesktopPath(), "/Users/Shared/Desktop");
    EXPECT_EQ(Platform::GetUserDesktopPath(), kFolder + "/Desktop");
    setVariable("HOME", std::nullopt);
    Platform::SetAutoStart("/elsewhere");
    EXPECT_EQ(Platform::GetUserDesktopPath(), "");
    setVariable("HOME", kFolder);
    Platform::RemoveAutoStart();
    EXPECT_FALSE(fs::exists(agent));
    fs::create_directories(agent / "not empty");
    EXPECT_THROW(Platform::RemoveAutoStart(), fs::filesystem_error);
}

TEST(System, IdleTimeIsWholeSeconds) {
    const auto begin = std::chrono::steady_clock::now();
    if (std::system("xdotool mousemove 10 10") != 0)
        return; // on a Mac
    while (Platform::GetIdleTimeSeconds() < 2)
        ASSERT_LT(std::chrono::steady_clock::now() - begin, 60s);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2s);
    setVariable("DISPLAY", ":999"); // where nothing is known
    EXPECT_EQ(Platform::GetIdleTimeSeconds(), 0);
}

TEST(System, OpenStartsOneMoreThatIsNobodysChild) {
    if (std::system("! command -v launchctl >/dev/null || launchctl print gui/$(id -u) >/dev/null"))
        GTEST_SKIP() << "no session with a screen"; // which open does not need on Linux
    copyTo(kFolder + "Opened.app/Contents/MacOS/Opened");
    write(kFolder + "Opened.app/Contents/Info.plist", // compat/bin/open goes by the names
          "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>Opened</string>"
          "<key>CFBundleIdentifier</key><string>com.mervix.korvane.opened</string>"
          "<key>LSBackgroundOnly</key><true/></dict></plist>");
    const std::string told = kFolder + "told";
    mkfifo(told.c_str(), 0600);
    setVariable("TOLD", told);
    for (int instance = 0; instance < 2; ++instance)
        ASSERT_EQ(std::system(("open -n " + kFolder + "Opened.app").c_str()), 0);
    const std::unique_ptr<std::FILE, Closing<std::fclose>> both(std::fopen(told.c_str(), "r+"));
    const std::string first = line(both), second = line(both);
    EXPECT_TRUE(first.starts_with("parent 1 in /, process ")) << first;
    EXPECT_NE(first, second);
}

} // namespace

// The argument is the log-in program. Goes on as a copy whose name nobody else has.
int main(int argc, char **argv) {
    alarm(100); // what does not end by itself ends all the same
    std::uint32_t size = self.size();
    _NSGetExecutablePath(self.data(), &size);
    self = self.c_str();
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "where")
        return std::puts(self.c_str()) < 0;
    if (role == "stay")
        return dprintf(STDOUT_FILENO, "%d\n", getpid()) + pause();
    if (self.ends_with("/Opened"))
        return std::system("echo parent $(ps -o ppid= -p $PPID) in $(pwd), process $PPID >$TOLD");
    if (!self.ends_with(kName)) {
        std::string copy = copyTo(kFolder + kName);
        argv[0] = copy.data();
        return execv(argv[0], argv);
    }
    testing::InitGoogleTest(&argc, argv);
    fs::copy_file(argv[1], kFolder + "Korvane");
    const int status = RUN_ALL_TESTS();
    fs::remove_all(kFolder);
    return status;
}
