// The requests to the vendor's web service, made with libcurl.
#include "companion/ServiceClient.h"

#include "platform/Closing.h"
#include "platform/StagedFile.h"

#include <cstdio>
#include <curl/curl.h>
#include <memory>

namespace {

// Plain literals: the supervision thread may still read them while the process ends.
#define SERVICE_FOLDER "https://" KORVANE_SERVICE_HOST "/korvane/korvane/projectMenu/self/shared/"
constexpr const char *kVersionAddress = SERVICE_FOLDER "GetVersion_SrvAsync";
constexpr const char *kDownloadAddress =
    SERVICE_FOLDER "FileDownloader_SrvAsync?p=download+Setup&u=BLANK&f=";

constexpr long kConnectSeconds = 15;
constexpr long kVersionSeconds = 30;
constexpr long kStallSeconds = 30;
constexpr long kStallBytesPerSecond = 1024;
constexpr std::size_t kLongestAnswer = 64 * 1024;

using EasyHandle = std::unique_ptr<CURL, Closing<curl_easy_cleanup>>;

// The connect limit includes resolving the name. At the limit libcurl would wait up to a minute for
// its resolver thread. With CURLOPT_QUICK_EXIT(3) it leaves that thread behind, which ends and
// frees what it holds once the system's resolver gives up.
void limitConnecting(CURL *handle) {
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
}

std::size_t write_data(void *data, std::size_t size, std::size_t count, void *file) {
    return std::fwrite(data, size, count, static_cast<std::FILE *>(file));
}

// True when the answer has no header of this name, or exactly one with this value
// (curl_easy_header(3)).
bool onlyHeader(CURL *handle, const char *name, const char *value) {
    curl_header *header = nullptr;
    const CURLHcode found = curl_easy_header(handle, name, 0, CURLH_HEADER, -1, &header);
    if (found == CURLHE_MISSING || found == CURLHE_NOHEADERS)
        return true;
    return found == CURLHE_OK && header->amount == 1 && curl_strequal(header->value, value);
}

// Whether what was received is the file itself, and all of it. No coding was asked for. libcurl
// does not undo a content coding, and its releases differ in what they make of a transfer coding
// other than "chunked", and of one that is cut. Of several lengths it takes the last, of "350, 700"
// the first number, and one beyond 63 bits counts as none.
bool isWholeFile(CURL *handle) {
    long status = 0;
    curl_off_t received = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle, CURLINFO_SIZE_DOWNLOAD_T, &received);
    return status == 200 &&
           onlyHeader(handle, "Content-Length", std::to_string(received).c_str()) &&
           onlyHeader(handle, "Content-Encoding", "identity") &&
           onlyHeader(handle, "Transfer-Encoding", "chunked");
}

// libcurl's progress callback: any value but 0 ends the transfer (CURLOPT_XFERINFOFUNCTION(3)).
int endWhenTooLong(void *answer, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<std::string *>(answer)->size() > kLongestAnswer;
}

} // namespace

std::size_t WriteCallback(void *data, std::size_t size, std::size_t count, std::string *answer) {
    answer->append(static_cast<const char *>(data), size * count);
    return size * count;
}

AppVersion parseServiceAnswer(const std::string &answer) {
    return answer.size() > 2 ? parseServiceVersion(answer.substr(1, answer.size() - 2))
                             : AppVersion{};
}

AppVersion getServiceVersion(const std::string &applicationCode) try {
    std::string answer;
    EasyHandle handle(curl_easy_init());
    if (!handle)
        return {};

    const std::string body = "app=" + applicationCode;
    curl_easy_setopt(handle.get(), CURLOPT_URL, kVersionAddress);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, WriteCallback);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(handle.get(), CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body.c_str());
    limitConnecting(handle.get());
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, kVersionSeconds);
    curl_easy_setopt(handle.get(), CURLOPT_XFERINFOFUNCTION, endWhenTooLong);
    curl_easy_setopt(handle.get(), CURLOPT_XFERINFODATA, &answer);
    curl_easy_setopt(handle.get(), CURLOPT_NOPROGRESS, 0L);
    const CURLcode result = curl_easy_perform(handle.get());
    handle.reset();

    return result == CURLE_OK ? parseServiceAnswer(answer) : AppVersion{};
} catch (...) {
    return {};
}

void downloadSetup(const std::string &fileName, const std::string &target) try {
    const std::string address = kDownloadAddress + fileName;
    EasyHandle handle(curl_easy_init());
    if (!handle)
        return;
    StagedFile staged(target);
    if (!staged.stream())
        return;

    curl_easy_setopt(handle.get(), CURLOPT_URL, address.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, write_data);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, staged.stream());
    curl_easy_setopt(handle.get(), CURLOPT_VERBOSE, 1L);
    limitConnecting(handle.get());
    curl_easy_setopt(handle.get(), CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond);
    curl_easy_setopt(handle.get(), CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    const CURLcode result = curl_easy_perform(handle.get());
    const bool whole = result == CURLE_OK && isWholeFile(handle.get());
    handle.reset();

    if (whole)
        staged.replaceTarget();
} catch (...) {
}
