// Requests to the vendor's web service, over HTTPS.
//
// Each blocks the calling thread and throws nothing. libcurl's trace goes to standard error.
#pragma once

#include "companion/AppVersion.h"

#include <cstddef>
#include <string>

// Drops the answer's first and last character, whatever they are, and parses the rest.
AppVersion parseServiceAnswer(const std::string &answer);

// Asks for the current version of an application ("KR_CAP" or "Korvane_CAP"). The HTTP status does
// not count. Returns the all-zero version when anything fails, when connecting takes more than 15 s
// or the request more than 30 s, or when the answer is longer than 64 KiB.
AppVersion getServiceVersion(const std::string &applicationCode);

// Downloads the file of this name over the one at target (a full path), with mode 0755. The target
// stays as it was unless all of the file has come: status 200, at least one byte, no length but the
// number of bytes received, no coding but chunks. With neither a length nor chunks the file is
// taken as whole wherever it ends. Asks for nothing when the target cannot be replaced (see
// StagedFile). Gives up when connecting takes more than 15 s, or less than 1 KiB/s arrives for 30
// s; above that a download may take any time.
void downloadSetup(const std::string &fileName, const std::string &target);

// libcurl's write callback for the version request: appends the bytes and returns their number.
std::size_t WriteCallback(void *data, std::size_t size, std::size_t count, std::string *answer);
