// The vendor's web service, over HTTPS: what the current version of an application is, and its executable.
//
// Every exchange is synchronous on the calling thread and uses one libcurl easy handle of its own. libcurl's trace of
// it goes to standard error. Nothing escapes an exchange and nothing is retried.
#pragma once

#include "companion/AppVersion.h"

#include <cstddef>
#include <string>

// Reads the version in the service's answer: the version text with one character at each end, which are dropped unseen.
AppVersion parseServiceAnswer(const std::string &answer);

// Asks for the current version of the application with this code ("KR_CAP" or "Korvane_CAP") and reads the answer,
// whatever the HTTP status. Returns the all-zero version when the exchange fails in any way. Takes at most 30 s (15 s
// of them to resolve the host's name and connect) and 64 KiB of answer.
AppVersion getServiceVersion(const std::string &applicationCode);

// Downloads the file of this name over the file at target (a full path). On success the target holds exactly the bytes
// received and has the mode 0755; the exchange must end well, with status 200 and at least one byte. In every other
// case the target is left as it was, and no request is made when it could not be replaced (see StagedFile). Ends when
// resolving the host's name and connecting take more than 15 s, or when less than 1 KiB/s arrives for 30 s; there is no
// limit on the total.
void downloadSetup(const std::string &fileName, const std::string &target);

// libcurl's write callback of the version request (CURLOPT_WRITEFUNCTION(3)): appends the size * count bytes at data to
// the string at answer and returns their number, always.
std::size_t WriteCallback(void *data, std::size_t size, std::size_t count, std::string *answer);
