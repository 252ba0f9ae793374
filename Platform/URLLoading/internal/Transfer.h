// Transfer: the libcurl easy handle of one connection, configured from its
// request, and what arrives for it until the driver hands it on.
//
// curl calls the header and body callbacks from inside its own calls, where
// no delegate may run (a delegate could cancel, start another load or run
// the loop again). They only record events; the driver delivers them once
// curl has returned.
#pragma once

#include "Platform/URLLoading/URLConnection.h"
#include "Platform/URLLoading/URLError.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace platform::urlloading_internal {

class Transfer {
public:
    // Sets on a new (or wholly reset) handle the options that every transfer
    // sets alike, so that a transfer sets only its own.
    static void configureSharedOptions(CURL* easy);

    // Configures `easy`, a handle with the shared options and none of another
    // transfer's, which the transfer owns from now on; its private pointer is
    // this transfer.
    Transfer(URLConnection& connection, CURL* easy);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    CURL* handle() const { return easy_; }
    // Gives the handle up, out of curl's multi handle, for another transfer to
    // reuse; the transfer is over then. What the transfer set for itself is
    // cleared; a handle that it set up for a trust challenge is reset whole
    // (`reset`), and needs the shared options again.
    struct ReleasedHandle {
        CURL* easy;
        bool reset;
    };
    ReleasedHandle releaseHandle();
    bool hasPendingEvents() const { return !pending_.empty(); }
    // The recorded events, oldest first, for the driver to deliver.
    std::vector<URLConnection::Event> takePendingEvents() { return std::exchange(pending_, {}); }
    // curl reported the end of the transfer with `result`: records the
    // response (if none went out yet) and the completion or failure. True
    // when the answer was a redirect that the load follows instead: the
    // handle is then set up for the next request, to go back to curl.
    [[nodiscard]] bool finish(CURLcode result);
    // A request that cannot be sent as it stands (a method that is not an
    // HTTP token, a URL without a scheme) is refused before it reaches curl.
    std::optional<URLErrorCode> refusal() const { return refusal_; }
    // Records a failure with `code`.
    void fail(URLErrorCode code);

private:
    static std::size_t onHeaderLine(char* bytes, std::size_t size, std::size_t count, void* transfer);
    static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* transfer);
    static CURLcode onTLSContext(CURL* easy, void* tlsContext, void* transfer);
    static int onPresentedChain(X509_STORE_CTX* chain, void* transfer);

    void configure(const URLRequest& request);
    void configureMethodAndBody(const URLRequest& request);
    // Without `callerFields` only the transport's own fields are sent;
    // without `bodyFields` none of the caller's that describe a body.
    void configureHeaderFields(const URLRequest& request, bool callerFields, bool bodyFields);
    std::optional<URLErrorCode> refusalToFollow(const URL& next);
    void followRedirect(const std::string& target, const URL& next);
    void configureServerTrustChallenge();
    void readHeaderLine(std::string_view line);
    // The place in `headerFields_` of the field named `name`, in any case.
    std::optional<std::size_t> findField(std::string_view name);
    void startHeaderBlock();
    void recordResponseOnce();

    URLConnection& connection_;
    CURL* easy_;
    curl_slist* headerList_ = nullptr;
    std::vector<URLConnection::Event> pending_;

    // The header block being received: a new status line starts another
    // (after a redirect or an interim 1xx answer).
    std::string httpVersion_;
    std::int64_t statusCode_ = 0;
    // The fields in the order their names first came, each name spelled as
    // it first came; repeated ones joined with ", ".
    std::vector<std::pair<std::string, std::string>> headerFields_;
    // Each received name, folded, to its place in `headerFields_`; made
    // only for a block of many fields.
    std::unordered_map<std::string, std::size_t> fieldIndex_;
    // The field a continuation line would extend.
    std::optional<std::size_t> lastField_;
    // Header bytes of this request's answers, interim ones included.
    std::size_t headerBytes_ = 0;
    bool headersTooLarge_ = false;
    bool responseRecorded_ = false;
    // The block just received is a redirect that will be followed.
    bool redirecting_ = false;
    long redirects_ = 0;
    std::string method_;
    bool bodyDropped_ = false;
    bool trustCancelled_ = false;
    bool trustChallenged_ = false;
    std::optional<URLErrorCode> refusal_;
};

}  // namespace platform::urlloading_internal
