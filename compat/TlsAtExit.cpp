// Lets the process end while one of its threads is in the middle of a TLS transfer.
//
// OpenSSL, libcurl's TLS library on Linux, tears itself down in an exit handler, even while a
// thread is using it. The launcher's supervision thread may be in the middle of a download when the
// process ends, so the handler must not run. macOS's TLS library is expected to have none; that has
// not been tried. The first call of OPENSSL_init_crypto(3) decides, so this one runs before main.
#include <openssl/crypto.h>

namespace {

[[maybe_unused]] const int noExitHandler = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

} // namespace
