// Files in /tmp, where every local user can put something in a file's place.
#pragma once

#include "platform/UniqueFd.h"

#include <string>

// Opens the file at path with these flags of open(2), which makes a missing one with mode 0666,
// less umask(2). Returns no descriptor when that fails, and also for a link, a file that has a
// second name, and anything but a regular file: so nothing that another user puts there leads the
// launcher to other files of its own user. Never waits, as it would for a pipe's reader.
UniqueFd openSharedFile(const std::string &path, int flags);
