// Replacing a file as a whole or not at all.
#pragma once

#include "platform/Closing.h"

#include <cstdio>
#include <memory>
#include <string>
#include <sys/stat.h>

// Receives a target file's new content in a staging file. The target changes only by rename(2):
// whatever happens, even if the process is killed or the machine loses power, it is the old file or
// the new one, never a mixture.
//
// The staging file is made in the target's folder, which shows that files may be made there, under
// the target's name and ".download"; whatever has that name is removed before. When the folder is a
// bundle's, "*.app/Contents/MacOS" (links resolved), the file is renamed, still empty, to the
// folder that holds the bundle, with a full stop in front, over whatever has that name: an unsigned
// file would break the bundle's seal, and a copy of the bundle would include it. Where that rename
// fails (another volume, a folder that the user may not write to), the file stays beside the
// target.
//
// A staging file that does not replace the target is removed. One left by a process that was killed
// or that exited meanwhile is replaced by the next one. So is one that another process is still
// writing: that process finds another file under its name, and changes and removes nothing.
class StagedFile {
  public:
    // Opens a staging file for target (a full path). When the target cannot be replaced, changes
    // nothing, and stream() is null: the folder is missing or this user may not write to it, or the
    // target is a folder or a file that this user may not write to (access(2)). A target that is
    // missing or running can be replaced.
    explicit StagedFile(const std::string &target);
    ~StagedFile();
    StagedFile(const StagedFile &) = delete;
    StagedFile &operator=(const StagedFile &) = delete;

    // The staging file, open for writing raw bytes, or null. Owned by this object.
    std::FILE *stream() const {
        return stream_.get();
    }

    // Renames the staging file to the target, with mode 0755, once it has at least one byte, and
    // its bytes and mode are on stable storage. Leaves the target as it was when any step fails,
    // when another file has taken the staging file's name, or when the target may no longer be
    // replaced. The last two are looked at right before the rename: a change in between is not
    // seen. Call it once and last: the stream must not be written to afterwards.
    void replaceTarget();

  private:
    std::string target_;
    std::string staging_;
    struct stat made_ = {}; // the staging file, as it was made
    std::unique_ptr<std::FILE, Closing<std::fclose>> stream_;
};
