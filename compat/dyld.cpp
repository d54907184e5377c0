// The running executable's path, from the auxiliary vector.
#include <mach-o/dyld.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <sys/auxv.h>
#include <system_error>

namespace {

// AT_EXECFN is the path given to execve (getauxval(3)). A relative one is relative to the folder
// that the process started in, which is certain only before main. Never freed: threads may ask
// while the process ends.
const std::string &executablePath = *new std::string([] {
    const char *executed = reinterpret_cast<const char *>(getauxval(AT_EXECFN));
    std::error_code unknownFolder;
    const std::filesystem::path folder = std::filesystem::current_path(unknownFolder);
    return (folder / executed).string();
}());

} // namespace

int _NSGetExecutablePath(char *buf, uint32_t *bufsize) {
    const size_t needed = executablePath.size() + 1;
    if (needed > *bufsize) {
        *bufsize = static_cast<uint32_t>(needed);
        return -1;
    }
    std::memcpy(buf, executablePath.c_str(), needed);
    return 0;
}
