// A staging file: created beside its target, flushed to stable storage, renamed.
#include "platform/StagedFile.h"

#include "platform/UniqueFd.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *kStagingSuffix = ".download.";

// Each attempt's staging file has a unique name, so no process renames another's half-written file. The names share a
// beginning, by which those left by killed processes are found.
void removeLeftovers(const fs::path &target) {
    const std::string beginning = target.filename().string() + kStagingSuffix;
    std::error_code ignored;
    for (fs::directory_iterator entry(target.parent_path(), ignored), end; entry != end; entry.increment(ignored)) {
        if (entry->path().filename().string().starts_with(beginning)) {
            std::error_code stays;
            fs::remove(entry->path(), stays);
        }
    }
}

// Asks access(2) instead of opening the target: macOS distrusts code that was open for writing. An executable that is
// running (ETXTBSY) can be replaced all the same.
bool mayBeReplaced(const fs::path &target) {
    std::error_code ignored;
    if (fs::is_directory(target, ignored))
        return false;
    return access(target.c_str(), W_OK) == 0 || errno == ENOENT || errno == ETXTBSY;
}

// Returns true once what was written to the file or folder is on stable storage. On macOS fsync(2) leaves it in the
// drive's cache, which may be written in any order; F_FULLFSYNC flushes that too. Some file systems, such as those of
// network volumes, refuse it with one of these three errors; fsync is then the best there is.
bool reachStableStorage(int descriptor) {
    if (fcntl(descriptor, F_FULLFSYNC) == 0)
        return true;
    const bool refused = errno == ENOTSUP || errno == ENOTTY || errno == EINVAL;
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
    removeLeftovers(target_);

    staging_ = target_ + kStagingSuffix + std::string(6, 'X'); // mkostemp(3) replaces these characters
    UniqueFd descriptor(mkostemp(staging_.data(), O_CLOEXEC));
    if (!descriptor) {
        staging_.clear();
        return;
    }
    stream_.reset(fdopen(descriptor.get(), "wb"));
    if (!stream_)
        return;
    descriptor.release();
    // Unbuffered: libcurl passes large blocks anyway, and an exit() during a transfer finds no buffer to flush.
    std::setvbuf(stream_.get(), nullptr, _IONBF, 0);
}

StagedFile::~StagedFile() {
    stream_.reset();
    if (!staging_.empty())
        unlink(staging_.c_str());
}

void StagedFile::replaceTarget() {
    struct stat received = {};
    if (fstat(fileno(stream_.get()), &received) != 0 || received.st_size == 0 ||
        !reachStableStorage(fileno(stream_.get())))
        return;
    if (std::fclose(stream_.release()) != 0)
        return;
    if (chmod(staging_.c_str(), 0755) != 0 || rename(staging_.c_str(), target_.c_str()) != 0)
        return;
    staging_.clear();
    syncFolder(fs::path(target_).parent_path());
}
