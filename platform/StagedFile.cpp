// A staging file: created beside its target, kept outside the target's bundle, flushed to stable
// storage, renamed.
#include "platform/StagedFile.h"

#include "platform/UniqueFd.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// Returns the folder that holds the bundle in which this is the folder of executables, or an empty
// path when it is not.
fs::path folderOfBundle(const fs::path &executables) {
    std::error_code error;
    const fs::path folder = fs::canonical(executables, error);
    const fs::path contents = folder.parent_path();
    const fs::path bundle = contents.parent_path();
    if (error || folder.filename() != "MacOS" || contents.filename() != "Contents" ||
        bundle.extension() != ".app")
        return {};
    return bundle.parent_path();
}

// Asks access(2) instead of opening the target: macOS distrusts code that was open for writing. An
// executable that is running (ETXTBSY) can be replaced all the same.
bool mayBeReplaced(const fs::path &target) {
    std::error_code ignored;
    if (fs::is_directory(target, ignored))
        return false;
    return access(target.c_str(), W_OK) == 0 || errno == ENOENT || errno == ETXTBSY;
}

// Whether the path still leads to this file itself, not to a link or to another file.
bool leadsTo(const std::string &path, const struct stat &file) {
    struct stat named = {};
    return lstat(path.c_str(), &named) == 0 && named.st_dev == file.st_dev &&
           named.st_ino == file.st_ino;
}

// Returns true once what was written to the file or folder is on stable storage. On macOS fsync(2)
// leaves it in the drive's cache, which may be written in any order; F_FULLFSYNC flushes that too.
// Some file systems, such as those of network volumes, refuse it with one of these errors; fsync is
// then the best there is.
bool reachStableStorage(int descriptor) {
    if (fcntl(descriptor, F_FULLFSYNC) == 0)
        return true;
    const bool refused =
        errno == ENOTSUP || errno == EOPNOTSUPP || errno == ENOTTY || errno == EINVAL;
    return refused && fsync(descriptor) == 0;
}

void syncFolder(const fs::path &folder) {
    const UniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor)
        reachStableStorage(descriptor.get());
}

} // namespace

StagedFile::StagedFile(const std::string &target) : target_(target) {
    if (!mayBeReplaced(target_))
        return;
    const fs::path folder = fs::path(target_).parent_path();
    const std::string name = fs::path(target_).filename().string() + ".download";
    staging_ = folder / name;
    unlink(staging_.c_str());
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd descriptor(open(staging_.c_str(), flags, 0600));
    if (!descriptor || fstat(descriptor.get(), &made_) != 0)
        return;
    if (const fs::path outside = folderOfBundle(folder); !outside.empty()) {
        std::string hidden = outside / ("." + name);
        if (rename(staging_.c_str(), hidden.c_str()) == 0)
            staging_.swap(hidden);
    }
    stream_.reset(fdopen(descriptor.get(), "wb"));
    if (!stream_)
        return;
    descriptor.release();
    // Unbuffered: libcurl passes large blocks anyway, and an exit() during a transfer finds no
    // buffer to flush.
    std::setvbuf(stream_.get(), nullptr, _IONBF, 0);
}

StagedFile::~StagedFile() {
    if (leadsTo(staging_, made_))
        unlink(staging_.c_str());
}

void StagedFile::replaceTarget() {
    const int descriptor = fileno(stream_.get());
    struct stat received = {};
    if (fstat(descriptor, &received) != 0 || received.st_size == 0 ||
        fchmod(descriptor, 0755) != 0 || !reachStableStorage(descriptor))
        return;
    stream_.reset(); // whatever close(2) says now: all bytes are on stable storage
    if (leadsTo(staging_, made_) && mayBeReplaced(target_) &&
        rename(staging_.c_str(), target_.c_str()) == 0)
        syncFolder(fs::path(target_).parent_path());
}
