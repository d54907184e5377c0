// The operating system's side: files, processes, the login item. Runs as an ordinary user on a throwaway machine.
#include "app/Korvane_Cross_launcher.h"
#include "app/UserName.h"
#include "companion/StagedFile.h"
#include "platform/FirstLine.h"
#include "platform/Platform.h"
#include "supervise/CompanionProcess.h"
#include "supervise/ManualExitFlag.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <mach-o/dyld.h>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

namespace {

void write(const fs::path &path, const std::string &content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string read(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void setVariable(const char *name, const std::optional<std::string> &value) {
    if (value)
        setenv(name, value->c_str(), 1);
    else
        unsetenv(name);
}

// A fresh folder for each test.
class System : public testing::Test {
  protected:
    System() : folder("/tmp/system_test") {
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    fs::path folder;
};

TEST_F(System, UserNameComesFromTheFirstVariableThatIsSet) {
    const struct {
        std::optional<std::string> user, logname;
        std::string name;
    } table[] = {{"alice", "bob", "alice"}, {std::nullopt, "bob", "bob"}, {std::nullopt, std::nullopt, "unknown"},
                 {"", "bob", ""},           {std::nullopt, "", ""},       {" a b ", std::nullopt, " a b "}};
    for (const auto &[user, logname, name] : table) {
        setVariable("USER", user);
        setVariable("LOGNAME", logname);
        EXPECT_EQ(getOSUsername(), name);
    }
}

TEST_F(System, FirstLineOfEveryKindOfFile) {
    const struct {
        std::string content, line;
    } table[] = {{"1", "1"},
                 {"1\n", "1"},
                 {"1\r\n", "1\r"},
                 {"\n1\n", ""},
                 {"", ""},
                 {" 1", " 1"},
                 {"2.5\nmore\n", "2.5"},
                 {std::string("a\0b\nc", 5), std::string("a\0b", 3)},
                 {std::string(5000, 'x') + "\ny", std::string(5000, 'x')},
                 {std::string(1 << 20, 'x'), std::string(1 << 16, 'x')}};
    const fs::path file = folder / "file";
    for (const auto &[content, line] : table) {
        write(file, content);
        EXPECT_EQ(readFirstLine(file), line);
    }
    fs::permissions(file, fs::perms::none);
    fs::create_directory(folder / "folder");
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const fs::path &none : {file, folder / "folder", folder / "pipe", folder / "missing"})
        EXPECT_EQ(readFirstLine(none), "") << none;
}

TEST_F(System, MarkerAndFlagAreFoundBesideTheirPaths) {
    write(folder / "App.version", "2.5\r\n");
    EXPECT_EQ(Platform::GetExternalAppVersion(folder / "App"), "2.5\r");
    EXPECT_EQ(Platform::GetExternalAppVersion(folder / "Other"), "");

    filepath = folder.string() + "/";
    uname_windows = "";
    setVariable("USER", "alice");
    EXPECT_EQ(readExitCheck(), "");
    EXPECT_EQ(uname_windows, "alice");
    EXPECT_FALSE(fs::exists(folder / "alice_ManualExit.txt"));
    write(folder / "alice_ManualExit.txt", "1\nx");
    EXPECT_EQ(readExitCheck(), "1");
}

TEST_F(System, ExecutablePathIsTracedWithoutHarmToOtherFiles) {
    const fs::path trace = "/tmp/korvane_debug.txt";
    const fs::path self = fs::read_symlink("/proc/self/exe");
    const std::string lines = "ret: 0\nraw path: " + self.string() + "\nsize: 4096\n";
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(getExecutablePath(), self);
        EXPECT_EQ(read(trace), lines);
    }

    const fs::path precious = folder / "precious";
    write(precious, "content");
    const std::function<void()> plants[] = {
        [&] { fs::create_symlink(precious, trace); }, [&] { fs::create_hard_link(precious, trace); },
        [&] { ASSERT_EQ(mkfifo(trace.c_str(), 0600), 0); }, [&] { fs::create_directory(trace); }};
    for (const auto &plant : plants) {
        fs::remove(trace);
        plant();
        EXPECT_EQ(getExecutablePath(), self);
        EXPECT_EQ(read(precious), "content");
    }
    fs::remove(trace);

    char small[4] = "abc";
    std::uint32_t size = sizeof small;
    EXPECT_EQ(_NSGetExecutablePath(small, &size), -1);
    EXPECT_EQ(size, self.string().size() + 1);
    EXPECT_STREQ(small, "abc");
}

TEST_F(System, InstallFolderIsTheFourthParent) {
    EXPECT_EQ(installFolder("/Applications/Korvane.app/Contents/MacOS/Korvane"), "/Applications");
    EXPECT_EQ(installFolder("/Korvane.app/Contents/MacOS/Korvane"), "/");
    EXPECT_EQ(installFolder("/a"), "/");
    EXPECT_EQ(installFolder(""), "");
}

TEST_F(System, StagedFileReplacesWholeOrNotAtAll) {
    const fs::path target = folder / "target";
    const auto alone = [&] { return std::distance(fs::directory_iterator(folder), {}) == 1; };
    const auto stage = [&](const std::string &content, bool replace) {
        StagedFile staged(target);
        ASSERT_TRUE(staged.stream());
        std::fwrite(content.data(), 1, content.size(), staged.stream());
        if (replace)
            staged.replaceTarget();
    };
    write(target, "old");
    fs::permissions(target, fs::perms(0640));
    const auto time = fs::last_write_time(target);
    write(folder / "target.download.killed", "left by a killed process");
    stage("new", false);
    stage("", true);
    EXPECT_EQ(read(target), "old");
    EXPECT_EQ(fs::status(target).permissions(), fs::perms(0640));
    EXPECT_EQ(fs::last_write_time(target), time);
    EXPECT_TRUE(alone());
    stage("new", true);
    EXPECT_EQ(read(target), "new");
    EXPECT_EQ(fs::status(target).permissions(), fs::perms(0755));
    EXPECT_TRUE(alone());

    fs::create_directory(folder / "locked");
    fs::permissions(folder / "locked", fs::perms(0500));
    for (const fs::path &impossible : {folder, folder / "missing/target", folder / "locked/target"})
        EXPECT_FALSE(StagedFile(impossible).stream()) << impossible;
    EXPECT_FALSE(fs::exists(folder / "missing"));
    fs::permissions(folder / "locked", fs::perms(0700));
}

TEST_F(System, LoginItemIsTheNineLines) {
    const fs::path agent = folder / "Library/LaunchAgents/com.mervix.korvane.plist";
    setVariable("HOME", folder);
    Platform::SetAutoStart("/nowhere");
    EXPECT_FALSE(fs::exists(folder / "Library"));
    fs::create_directories(agent.parent_path());
    write(agent, std::string(4000, 'x'));
    for (int call = 0; call < 2; ++call)
        Platform::SetAutoStart("/A folder & more/Korvane");
    EXPECT_EQ(read(agent), R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
  <key>Label</key><string>com.mervix.korvane</string>
  <key>ProgramArguments</key><array>
    <string>/A folder & more/Korvane</string>
  </array>
  <key>RunAtLoad</key><true/>
</dict></plist>
)");
    setVariable("HOME", std::nullopt);
    Platform::SetAutoStart("/elsewhere");
    Platform::RemoveAutoStart();
    EXPECT_TRUE(fs::exists(agent));
    setVariable("HOME", folder);
    Platform::RemoveAutoStart();
    EXPECT_FALSE(fs::exists(agent));
    Platform::RemoveAutoStart();
    fs::create_directories(agent / "not empty");
    EXPECT_THROW(Platform::RemoveAutoStart(), fs::filesystem_error);
}

// A sleeping process, named and with arguments as wanted.
class Sleeper {
  public:
    explicit Sleeper(const fs::path &program) {
        fs::copy_file("/usr/bin/sleep", program, fs::copy_options::skip_existing);
        int started[2];
        EXPECT_EQ(pipe2(started, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            execl(program.c_str(), program.c_str(), "1000", nullptr);
            _exit(1);
        }
        close(started[1]);
        char none;
        EXPECT_EQ(::read(started[0], &none, 1), 0); // closed by the exec
        close(started[0]);
    }
    ~Sleeper() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    // Waits for its end; true when SIGTERM ended it.
    bool terminated() {
        int status = 0;
        return waitpid(pid_, &status, 0) == pid_ && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM;
    }
    bool alive() const {
        return waitpid(pid_, nullptr, WNOHANG) == 0;
    }

  private:
    pid_t pid_;
};

TEST_F(System, ProbeMatchesTheExactNameAndCloseAnyCommandLine) {
    EXPECT_FALSE(KR_TitleCheck());
    CloseKR();
    Sleeper bystander(folder / "other");
    Sleeper longer(folder / "KRX");
    EXPECT_FALSE(KR_TitleCheck());
    Sleeper exact(folder / "KR");
    Sleeper another(folder / "KR");
    EXPECT_TRUE(KR_TitleCheck());
    CloseKR();
    for (Sleeper *matching : {&longer, &exact, &another})
        EXPECT_TRUE(matching->terminated());
    EXPECT_TRUE(bystander.alive());
    EXPECT_FALSE(KR_TitleCheck());

    const std::string path = std::getenv("PATH");
    setVariable("PATH", "/nowhere");
    EXPECT_FALSE(KR_TitleCheck());
    CloseKR();
    setVariable("PATH", path);
}

} // namespace
