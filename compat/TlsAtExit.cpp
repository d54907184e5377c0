// Ending a process while one of its threads is inside a TLS transfer.
//
// OpenSSL, libcurl's TLS library on Linux, tears itself down in an exit handler, under the feet of any thread that
// still uses it. macOS's TLS library does no such thing, and the launcher counts on that: its supervision thread may be
// in the middle of a download when the process ends. OPENSSL_init_crypto(3): the first caller decides, so this runs
// before main.
#include <openssl/crypto.h>

namespace {

[[maybe_unused]] const int noExitHandler = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

} // namespace
