// The operating system's side: files, processes, the login item. Runs as an ordinary user on a throwaway machine.
#include "app/UserName.h"
#include "platform/Platform.h"
#include "supervise/CompanionProcess.h"

#include <csignal>
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

TEST_F(System, LoginItemComesAndGoes) {
    const fs::path agent = folder / "Library/LaunchAgents/com.mervix.korvane.plist";
    setVariable("HOME", folder);
    Platform::SetAutoStart("/nowhere");
    EXPECT_FALSE(fs::exists(folder / "Library"));
    fs::create_directories(agent.parent_path());
    Platform::SetAutoStart("/a & b/Korvane");
    const std::string content = read(agent);
    EXPECT_NE(content.find("    <string>/a & b/Korvane</string>\n"), std::string::npos);
    write(agent, std::string(4000, 'x'));
    Platform::SetAutoStart("/a & b/Korvane");
    EXPECT_EQ(read(agent), content);

    setVariable("HOME", std::nullopt);
    Platform::SetAutoStart("/elsewhere");
    Platform::RemoveAutoStart();
    EXPECT_EQ(read(agent), content);
    setVariable("HOME", folder);
    Platform::RemoveAutoStart();
    EXPECT_FALSE(fs::exists(agent));
    Platform::RemoveAutoStart();
    fs::create_directories(agent / "not empty");
    EXPECT_THROW(Platform::RemoveAutoStart(), fs::filesystem_error);
}

pid_t startSleeper(const fs::path &program) {
    fs::copy_file("/usr/bin/sleep", program, fs::copy_options::skip_existing);
    const pid_t pid = vfork(); // comes back once the program runs
    if (pid == 0) {
        execl(program.c_str(), program.c_str(), "1000", nullptr);
        _exit(1);
    }
    return pid;
}

TEST_F(System, ProbeMatchesTheExactNameAndCloseAnyCommandLine) {
    EXPECT_FALSE(KR_TitleCheck());
    CloseKR();
    const pid_t bystander = startSleeper(folder / "other");
    const pid_t longer = startSleeper(folder / "KRX");
    EXPECT_FALSE(KR_TitleCheck());
    const pid_t companions[] = {startSleeper(folder / "KR"), startSleeper(folder / "KR")};
    EXPECT_TRUE(KR_TitleCheck());
    CloseKR();
    int status = 0;
    for (const pid_t matching : {longer, companions[0], companions[1]})
        EXPECT_TRUE(waitpid(matching, &status, 0) == matching && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(waitpid(bystander, &status, WNOHANG), 0);
    EXPECT_FALSE(KR_TitleCheck());
    kill(bystander, SIGKILL);
}

} // namespace
