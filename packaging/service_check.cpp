// Asks the vendor's service what the launcher asks, by the launcher's own client.
#include "companion/ServiceClient.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr const char *kUsage =
    "service_check         prints what the launcher reads as the two versions\n"
    "service_check FILE    downloads the companion's executable to FILE, which must not exist yet\n"
    "\n"
    "It asks " KORVANE_SERVICE_HOST ". Standard error shows certificate, status and headers. Look\n"
    "at the status: an error page may read as a version (\"404 page not found\" is 4.0).\n"
    "Exit status: 1 when a version is 0.0 or nothing was downloaded, 2 for wrong arguments.\n";

bool printVersion(const char *applicationCode) {
    const AppVersion version = getServiceVersion(applicationCode);
    std::printf("%s %d.%d.%d.%d\n", applicationCode, version.major, version.minor, version.build,
                version.revision);
    return version.major != 0 || version.minor != 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 1) {
        const bool companion = printVersion("KR_CAP");
        return printVersion("Korvane_CAP") && companion ? 0 : 1;
    }
    const fs::path file = fs::absolute(argv[1]);
    std::error_code missing;
    if (argc != 2 || argv[1][0] == '-' || fs::exists(file, missing)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    downloadSetup("KR", file);
    const std::uintmax_t size = fs::file_size(file, missing);
    if (missing)
        return 1;
    std::printf("%ju bytes\n", size);
    return 0;
}
