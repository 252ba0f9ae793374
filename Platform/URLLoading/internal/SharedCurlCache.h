// The libcurl state every load of the process shares: DNS answers and TLS
// sessions, behind locks. Connections are not in it (libcurl does not
// support sharing them between threads); each driver's multi handle keeps
// its own, so loads from one thread, or from delegate queues, reuse them.
#pragma once

#include <curl/curl.h>

namespace platform::urlloading_internal {

// Initialises libcurl on first use.
CURLSH* sharedCurlCache();

}  // namespace platform::urlloading_internal
