// Reads a first line without blocking and in bounded memory.
#include "platform/FirstLine.h"

#include "platform/UniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr std::size_t kLongestLine = 64 * 1024;

} // namespace

std::string readFirstLine(const std::string &path) {
    // Without O_NONBLOCK, opening a pipe would wait for its writer (open(2)).
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};

    std::string line;
    std::array<char, 4096> block;
    while (line.size() < kLongestLine) {
        const ssize_t count = read(file.get(), block.data(), block.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return {};
        if (count == 0)
            break;
        const auto end = block.begin() + count;
        const auto lineFeed = std::find(block.begin(), end, '\n');
        line.append(block.begin(), lineFeed);
        if (lineFeed != end)
            break;
    }
    return line;
}
