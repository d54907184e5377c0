// Replacing a file as a whole or not at all.
#pragma once

#include "platform/Closing.h"

#include <cstdio>
#include <memory>
#include <string>
#include <sys/stat.h>

// Receives the new content of a target file in a staging file, which takes the target's place by
// rename(2). So the target is the old file or the new one whatever happens, even when the process
// is killed or the power fails.
//
// The staging file is the target's name and ".download", made beside the target. That shows that
// files may be made there. If the folder is a bundle's Contents/MacOS, the file is then moved,
// still empty, out to the folder that holds the bundle, as ".<name>.download": inside it would
// break the bundle's seal. Where it cannot be moved it stays. Whatever has these names is replaced:
// it is what a killed process left, or what another process is still writing. That process notices,
// and neither replaces the target nor removes anything.
class StagedFile {
  public:
    // Opens a staging file for target (a full path). If the target is a folder, or the user may not
    // write to it or to its folder, changes nothing, and stream() is null. A target may be missing,
    // and may be running.
    explicit StagedFile(const std::string &target);
    ~StagedFile();
    StagedFile(const StagedFile &) = delete;
    StagedFile &operator=(const StagedFile &) = delete;

    // For writing raw bytes; null when there is no staging file. Owned by this object.
    std::FILE *stream() const {
        return stream_.get();
    }

    // Replaces the target, with mode 0755, once all bytes are on stable storage. Leaves it as it
    // was when there are no bytes, a step fails, or the staging file or the target's rights are not
    // what they were. Call it last: the stream is closed.
    void replaceTarget();

  private:
    std::string target_;
    std::string staging_;
    struct stat made_ = {}; // the staging file, as it was made
    std::unique_ptr<std::FILE, Closing<std::fclose>> stream_;
};
