#include "Platform/URLLoading/internal/SharedCurlCache.h"

#include <openssl/crypto.h>

#include <array>
#include <mutex>

namespace platform::urlloading_internal {
namespace {

std::array<std::mutex, CURL_LOCK_DATA_LAST> locks;

void lock(CURL*, curl_lock_data data, curl_lock_access, void*)
{
    locks[static_cast<std::size_t>(data)].lock();
}

void unlock(CURL*, curl_lock_data data, void*)
{
    locks[static_cast<std::size_t>(data)].unlock();
}

}  // namespace

CURLSH* sharedCurlCache()
{
    static CURLSH* const share = [] {
        // The transport threads run until the process ends. OpenSSL would
        // otherwise free its locks from an exit handler while one of those
        // threads may still take them; the end of the process reclaims
        // them instead. This must come before anything else starts OpenSSL.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
        curl_global_init(CURL_GLOBAL_DEFAULT);
        CURLSH* made = curl_share_init();
        curl_share_setopt(made, CURLSHOPT_LOCKFUNC, &lock);
        curl_share_setopt(made, CURLSHOPT_UNLOCKFUNC, &unlock);
        curl_share_setopt(made, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(made, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        return made;
    }();
    return share;
}

}  // namespace platform::urlloading_internal
