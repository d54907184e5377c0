// Opens files in /tmp without following what another user has put there.
#include "platform/SharedFile.h"

#include <fcntl.h>
#include <sys/stat.h>

UniqueFd openSharedFile(const std::string &path, int flags) {
    UniqueFd file(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    struct stat status = {};
    const bool plain =
        file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
    return UniqueFd(plain ? file.release() : -1);
}
