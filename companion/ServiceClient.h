// Requests to the vendor's web service, over HTTPS: an application's current version, and its
// executable.
//
// Each request blocks the calling thread and uses a libcurl easy handle of its own. libcurl's trace
// goes to standard error. No request throws, and the launcher repeats none.
#pragma once

#include "companion/AppVersion.h"

#include <cstddef>
#include <string>

// Reads the version in the service's answer: the version text between two characters, which are
// dropped unchecked.
AppVersion parseServiceAnswer(const std::string &answer);

// Asks for the current version of the application with this code ("KR_CAP" or "Korvane_CAP") and
// reads the answer, whatever the HTTP status. Returns the all-zero version when the request fails
// in any way. The request may take 30 s, of which 15 s to resolve the host's name and connect, and
// the answer may have 64 KiB. Its size is checked only between libcurl's steps: one that undoes a
// transfer coding can take far more memory than that.
AppVersion getServiceVersion(const std::string &applicationCode);

// Downloads the file of this name over the file at target (a full path). If the request ends
// without an error, with status 200, at least one byte, no length but the number of bytes received
// and no coding but chunks, the target then holds exactly these bytes and has mode 0755. Otherwise
// the target is left as it was. No request is made when the target cannot be replaced (see
// StagedFile). Gives up when resolving the host's name and connecting take more than 15 s, or when
// less than 1 KiB/s arrives for 30 s; above that a download may take any time. An answer with
// neither a length nor chunks is taken as whole wherever it ends.
void downloadSetup(const std::string &fileName, const std::string &target);

// The version request's write callback (CURLOPT_WRITEFUNCTION(3)): appends the size * count bytes
// at data to *answer and always returns their number.
std::size_t WriteCallback(void *data, std::size_t size, std::size_t count, std::string *answer);
