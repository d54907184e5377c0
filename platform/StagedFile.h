// A file that takes another's place whole, or not at all.
#pragma once

#include "platform/Closing.h"

#include <cstdio>
#include <memory>
#include <string>

// Receives the new content of a target file in a staging file of the target's own folder. Whatever happens, and also
// when the process is killed or the machine loses power, the target is the old file or the new one, never a mixture:
// it changes only by rename(2). A staging file that is not put in place is removed; one that a killed process left
// behind is removed by the next StagedFile for the same target, and so is one that another process is still writing,
// which then does not take the target's place.
class StagedFile {
  public:
    // Opens a staging file for target (a full path). Changes nothing, and stream() is null, when the target could not
    // be replaced: its folder is missing or may not be written to, or the target exists and is a folder or may itself
    // not be written to by this user (access(2)). A target that is missing, or that runs at this moment, is no
    // obstacle.
    explicit StagedFile(const std::string &target);
    ~StagedFile();
    StagedFile(const StagedFile &) = delete;
    StagedFile &operator=(const StagedFile &) = delete;

    // The staging file, open for writing raw bytes, or null. Owned by this object.
    std::FILE *stream() const {
        return stream_.get();
    }

    // Puts the staging file in the target's place with the mode 0755, once it holds at least one byte and all its bytes
    // have reached the disk. Leaves the target as it was when any step fails. Call it once, as the last: the stream
    // must not be written to afterwards.
    void replaceTarget();

  private:
    std::string target_;
    std::string staging_; // empty once there is no staging file to remove
    std::unique_ptr<std::FILE, Closing<std::fclose>> stream_;
};
