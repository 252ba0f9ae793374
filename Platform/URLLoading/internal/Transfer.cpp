#include "Platform/URLLoading/internal/Transfer.h"

#include "Platform/URLLoading/URLError.h"
#include "Platform/URLLoading/internal/HeaderFieldNames.h"
#include "Platform/URLLoading/internal/ServerTrustChallenge.h"
#include "Platform/URLLoading/internal/SharedCurlCache.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <memory>
#include <string_view>

namespace platform::urlloading_internal {
namespace {

constexpr long kMaximumRedirects = 16;
// Header bytes an answer may take, interim answers included. No API answers
// with more (libcurl itself gives up on 300 KiB, and on a single line of
// 100 KiB); the bound keeps what a hostile server makes us store small.
constexpr std::size_t kMaximumHeaderBytes = 256 * 1024;
// Sent as a field of our own rather than through libcurl's option, which
// formats the line anew for every request.
constexpr const char* kDefaultUserAgentLine = "User-Agent: Zarvo-URLLoading/1 (Linux)";
// Up to this many fields, a received field's name is found by a scan of the
// others; past it, through an index of folded names.
constexpr std::size_t kScannedFields = 32;
// An answer's callbacks (response, a chunk, the end) mostly come in one round,
// and an API answers with about a dozen fields: room for both from the start
// spares growing them step by step for each request. (Room for more fields
// would pass 1 KiB, where glibc's malloc sweeps its small free chunks first.)
constexpr std::size_t kUsualEvents = 4;
constexpr std::size_t kUsualFields = 12;

// The "Accept-Encoding" line libcurl would send for every encoding it
// decodes, named and ordered as libcurl names them. A field of our own list
// costs libcurl one formatting of the line per request; its own line costs
// two (made, then copied into the request byte by byte), about 4% of a small
// request's instructions. The option stays set, which is what makes libcurl
// decode; it sends no line of its own while the list holds one.
const std::string& acceptEncodingLine()
{
    static const std::string line = [] {
        const auto features = curl_version_info(CURLVERSION_NOW)->features;
        std::string encodings;
        const auto add = [&encodings](std::string_view name) {
            encodings += encodings.empty() ? "" : ", ";
            encodings += name;
        };
        if ((features & CURL_VERSION_LIBZ) != 0) {
            add("deflate");
            add("gzip");
        }
        if ((features & CURL_VERSION_BROTLI) != 0) {
            add("br");
        }
        if ((features & CURL_VERSION_ZSTD) != 0) {
            add("zstd");
        }
        return "Accept-Encoding: " + (encodings.empty() ? std::string("identity") : encodings);
    }();
    return line;
}

// The list for a request that sets no field, which most do: made once and
// never changed, so every handle of every thread may point at it (libcurl
// only reads it), where a list per request cost four allocations.
curl_slist* transportFieldList()
{
    static curl_slist* const list = curl_slist_append(curl_slist_append(nullptr, kDefaultUserAgentLine), acceptEncodingLine().c_str());
    return list;
}

// A method is an HTTP token; anything else could split the request line.
bool isToken(std::string_view method)
{
    return !method.empty() && std::all_of(method.begin(), method.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
    });
}

// A request that leaves a handle's method and body as they were.
bool isBareGET(const URLRequest& request)
{
    return !request.httpBody() && request.httpMethod() == "GET";
}

bool isLoadableScheme(const URL& url)
{
    return url.scheme() == "http" || url.scheme() == "https";
}

bool isFollowedRedirect(std::int64_t status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Where a redirect leads: its location resolved against the URL that
// answered and encoded as libcurl encodes a location it follows itself;
// nothing when the location names no URL. (libcurl's own resolution,
// CURLINFO_REDIRECT_URL, comes only once the transfer is done, too late to
// keep the body of an answer that turns out not to be followed.)
struct RedirectTarget {
    std::string text;
    URL url;
};
std::optional<RedirectTarget> redirectTarget(CURL* easy, const std::string& location)
{
    const char* answered = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &answered);
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> resolver(curl_url(), curl_url_cleanup);
    char* resolved = nullptr;
    if (answered == nullptr || !resolver || curl_url_set(resolver.get(), CURLUPART_URL, answered, 0) != CURLUE_OK
        || curl_url_set(resolver.get(), CURLUPART_URL, location.c_str(), CURLU_URLENCODE | CURLU_ALLOW_SPACE) != CURLUE_OK
        || curl_url_get(resolver.get(), CURLUPART_URL, &resolved, 0) != CURLUE_OK) {
        return std::nullopt;
    }
    std::string text(resolved);
    curl_free(resolved);
    auto url = URL::fromString(text);
    if (!url) {
        return std::nullopt;
    }
    return RedirectTarget{std::move(text), std::move(*url)};
}

// Scheme, host (without regard to case) and port, the default one spelled out.
bool sameOrigin(const URL& a, const URL& b)
{
    const auto port = [](const URL& url) { return url.port().value_or(url.scheme() == "https" ? 443 : 80); };
    return a.scheme() == b.scheme() && a.host().has_value() && b.host().has_value()
        && sameFieldName(*a.host(), *b.host()) && port(a) == port(b);
}

// The fields that describe a body, which go when the body does.
bool describesBody(std::string_view name)
{
    constexpr std::string_view kFields[] = {"Content-Type", "Content-Length", "Content-Encoding", "Content-Language", "Content-Location"};
    return std::any_of(std::begin(kFields), std::end(kFields), [name](std::string_view field) { return sameFieldName(name, field); });
}

URLErrorCode urlErrorCode(CURLcode result, const URL& url)
{
    switch (result) {
    case CURLE_OPERATION_TIMEDOUT: return NSURLErrorTimedOut;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return NSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT: return NSURLErrorCannotConnectToHost;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM: return NSURLErrorNetworkConnectionLost;
    case CURLE_URL_MALFORMAT: return NSURLErrorBadURL;
    case CURLE_UNSUPPORTED_PROTOCOL:
        // For an http(s) URL, libcurl says this of an answer without a status
        // line (which it refuses to read as HTTP/0.9).
        return isLoadableScheme(url) ? NSURLErrorBadServerResponse : NSURLErrorUnsupportedURL;
    case CURLE_TOO_MANY_REDIRECTS: return NSURLErrorHTTPTooManyRedirects;
    case CURLE_WEIRD_SERVER_REPLY: return NSURLErrorBadServerResponse;
    case CURLE_BAD_CONTENT_ENCODING: return NSURLErrorCannotDecodeContentData;
    case CURLE_PEER_FAILED_VERIFICATION: return NSURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR: return NSURLErrorSecureConnectionFailed;
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CLIENTCERT: return NSURLErrorClientCertificateRejected;
    default: return NSURLErrorUnknown;
    }
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Every header line passes through here; a set search per character cost
// more than the rest of the line's reading.
std::string_view trimmed(std::string_view text)
{
    std::size_t first = 0;
    while (first < text.size() && isBlank(text[first])) {
        ++first;
    }
    std::size_t end = text.size();
    while (end > first && isBlank(text[end - 1])) {
        --end;
    }
    return text.substr(first, end - first);
}

// A field that would break the request's framing is not sent at all.
bool isSendable(std::string_view name, std::string_view value)
{
    const auto breaksFraming = [](std::string_view text) { return text.find_first_of("\r\n", 0) != std::string_view::npos || text.find('\0') != std::string_view::npos; };
    return !name.empty() && name.find(':') == std::string_view::npos && !breaksFraming(name) && !breaksFraming(value);
}

}  // namespace

Transfer::Transfer(URLConnection& connection, CURL* easy) : connection_(connection), easy_(easy)
{
    pending_.reserve(kUsualEvents);
    headerFields_.reserve(kUsualFields);
    configure(*connection.originalRequest());
}

Transfer::~Transfer()
{
    if (easy_ != nullptr) {
        curl_easy_cleanup(easy_);
    }
    curl_slist_free_all(headerList_);
}

// Set once per handle: libcurl copies strings and re-checks settings for
// every option it is given, which cost a small request more than its own
// work when a handle was reset and set up anew for each.
void Transfer::configureSharedOptions(CURL* easy)
{
    curl_easy_setopt(easy, CURLOPT_SHARE, sharedCurlCache());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // Redirects are followed here rather than by libcurl, which would send
    // every field the caller set but "Authorization" and "Cookie" to any host.
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");  // every encoding libcurl decodes
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::onHeaderLine);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
}

void Transfer::configure(const URLRequest& request)
{
    if (!isToken(request.httpMethod())) {
        refusal_ = NSURLErrorBadURL;
        return;
    }
    if (!request.url().scheme()) {
        // libcurl would guess a scheme (and so a host) for a relative URL.
        refusal_ = NSURLErrorUnsupportedURL;
        return;
    }
    curl_easy_setopt(easy_, CURLOPT_URL, request.url().absoluteString().c_str());
    curl_easy_setopt(easy_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy_, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);

    // An inactivity time-out: connecting may take that long, and so may any
    // stretch without a byte (libcurl counts that in whole seconds).
    const double timeout = request.timeoutInterval() > 0 ? request.timeoutInterval() : URLRequest::DefaultTimeoutInterval;
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::ceil(timeout * 1000)));
    curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_TIME, std::max(1L, static_cast<long>(std::ceil(timeout))));

    configureMethodAndBody(request);
    configureHeaderFields(request, true, true);
    if (connection_.delegate_ && connection_.delegate_->handlesAuthenticationChallenges() && request.url().scheme() == "https") {
        configureServerTrustChallenge();
    }
}

// The handle keeps the shared options and its connection cache entry; what
// this transfer set goes, so that nothing of it (a body, a method, its
// fields, pointers into it) reaches the next. The options of a trust
// challenge are many and unusual; a reset is the sure way to undo them all.
Transfer::ReleasedHandle Transfer::releaseHandle()
{
    CURL* easy = std::exchange(easy_, nullptr);
    if (easy == nullptr) {
        return {nullptr, false};
    }
    if (trustChallenged_) {
        curl_easy_reset(easy);
        return {easy, true};
    }
    // A bare GET found the handle as it leaves it; anything else goes back.
    // POSTFIELDS turns the method into POST again, so the GET comes after it.
    if (!isBareGET(*connection_.originalRequest())) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);  // clears NOBODY as well
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, nullptr);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, nullptr);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, nullptr);
    return {easy, false};
}

// The delegate decides about every server this load reaches, so the load
// neither takes nor leaves a connection or TLS session that another load
// could use without being asked: a resumed session skips the certificate.
void Transfer::configureServerTrustChallenge()
{
    trustChallenged_ = true;
    curl_easy_setopt(easy_, CURLOPT_SSL_CTX_FUNCTION, &Transfer::onTLSContext);
    curl_easy_setopt(easy_, CURLOPT_SSL_CTX_DATA, this);
    curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, 0L);  // the trust evaluation checks the host
    curl_easy_setopt(easy_, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(easy_, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easy_, CURLOPT_SSL_SESSIONID_CACHE, 0L);
}

CURLcode Transfer::onTLSContext(CURL*, void* tlsContext, void* transfer)
{
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(tlsContext), &Transfer::onPresentedChain, transfer);
    return CURLE_OK;
}

int Transfer::onPresentedChain(X509_STORE_CTX* chain, void* transfer)
{
    auto& self = *static_cast<Transfer*>(transfer);
    const char* effective = nullptr;
    curl_easy_getinfo(self.easy_, CURLINFO_EFFECTIVE_URL, &effective);
    const auto reached = effective != nullptr ? URL::fromString(effective) : std::nullopt;
    const auto& url = reached && reached->hasHost() ? *reached : self.connection_.originalRequest()->url();
    const int port = static_cast<int>(url.port().value_or(443));
    const auto ask = [&self](const URLAuthenticationChallengeRef& challenge) { self.connection_.askDelegate(challenge); };
    switch (decideServerTrust(ask, chain, url.host().value_or(""), port)) {
    case TrustDecision::Accept: return 1;
    case TrustDecision::Cancel: self.trustCancelled_ = true; break;
    case TrustDecision::Reject: break;
    }
    X509_STORE_CTX_set_error(chain, X509_V_ERR_CERT_UNTRUSTED);
    return 0;
}

void Transfer::configureMethodAndBody(const URLRequest& request)
{
    const auto& method = request.httpMethod();
    method_ = method;
    // Every handle comes as a bare GET: a new one, a reset one, and one that a
    // transfer gave back (see `releaseHandle`).
    if (const auto& body = request.httpBody()) {
        // The request outlives the transfer, so curl may read the body in place.
        static const char empty = '\0';
        curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, body->empty() ? &empty : reinterpret_cast<const char*>(body->data()));
        if (method != "POST") {
            curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
    } else if (method == "GET") {
        // As the handle stands.
    } else if (method == "HEAD") {
        curl_easy_setopt(easy_, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, method.c_str());
    }
}

void Transfer::configureHeaderFields(const URLRequest& request, bool callerFields, bool bodyFields)
{
    curl_slist* list = nullptr;
    if (bodyFields && request.httpBody()) {
        // A body goes out at once: no waiting for "100 Continue".
        list = curl_slist_append(list, "Expect:");
    }
    bool callerAgent = false;
    bool callerEncodings = false;
    for (const auto& [name, value] : request.headerFields()) {
        if (!callerFields || !isSendable(name, value) || (!bodyFields && describesBody(name))) {
            continue;
        }
        callerAgent = callerAgent || sameFieldName(name, "User-Agent");
        callerEncodings = callerEncodings || sameFieldName(name, "Accept-Encoding");
        // "Name;" is how libcurl is told to send a field with an empty value.
        const auto line = value.empty() ? name + ";" : name + ": " + value;
        list = curl_slist_append(list, line.c_str());
    }
    if (list == nullptr) {
        // Only the transport's own fields: the one list of them serves.
        curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, transportFieldList());
        curl_slist_free_all(std::exchange(headerList_, nullptr));
        return;
    }
    // A caller's own wins over each of these.
    if (!callerAgent) {
        list = curl_slist_append(list, kDefaultUserAgentLine);
    }
    if (!callerEncodings) {
        list = curl_slist_append(list, acceptEncodingLine().c_str());
    }
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, list);
    curl_slist_free_all(std::exchange(headerList_, list));
}

std::size_t Transfer::onHeaderLine(char* bytes, std::size_t size, std::size_t count, void* transfer)
{
    auto& self = *static_cast<Transfer*>(transfer);
    self.headerBytes_ += size * count;
    if (self.headerBytes_ > kMaximumHeaderBytes) {
        self.headersTooLarge_ = true;
        return 0;  // curl stops the transfer
    }
    self.readHeaderLine(std::string_view(bytes, size * count));
    return size * count;
}

std::size_t Transfer::onBody(char* bytes, std::size_t size, std::size_t count, void* transfer)
{
    auto& self = *static_cast<Transfer*>(transfer);
    if (self.connection_.isCancelled()) {
        return CURL_WRITEFUNC_ERROR;
    }
    if (self.redirecting_) {
        return size * count;  // the body of a redirect that is followed is nobody's business
    }
    self.recordResponseOnce();
    const auto* first = reinterpret_cast<const std::uint8_t*>(bytes);
    self.pending_.push_back({URLConnection::Event::Kind::Data, nullptr, Data(first, first + size * count), nullptr});
    return size * count;
}

void Transfer::readHeaderLine(std::string_view line)
{
    if (line.starts_with("HTTP/")) {
        // A new answer: after a redirect, or following an interim one.
        const auto space = line.find(' ');
        startHeaderBlock();
        httpVersion_ = std::string(line.substr(0, space));
        statusCode_ = space == std::string_view::npos ? 0 : std::strtoll(std::string(line.substr(space + 1, 3)).c_str(), nullptr, 10);
        return;
    }
    const auto text = trimmed(line);
    if (text.empty()) {
        // Decided before the body comes, which is dropped only when the
        // redirect is followed: one whose location names nowhere is the
        // answer, delivered as it came.
        const auto location = findField("Location");
        redirecting_ = isFollowedRedirect(statusCode_) && location
            && redirectTarget(easy_, headerFields_[*location].second);
        return;
    }
    if (line.starts_with(' ') || line.starts_with('\t')) {
        if (lastField_) {
            headerFields_[*lastField_].second += " " + std::string(text);
        }
        return;
    }
    // Not a continuation, so `text` starts where the line does.
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return;  // a line that is not a field
    }
    const auto name = text.substr(0, colon);
    auto value = std::string(trimmed(text.substr(colon + 1)));
    const auto known = findField(name);
    if (!known) {
        if (!fieldIndex_.empty()) {
            fieldIndex_.emplace(foldedFieldName(name), headerFields_.size());
        }
        lastField_ = headerFields_.size();
        headerFields_.emplace_back(std::string(name), std::move(value));
        return;
    }
    lastField_ = *known;
    headerFields_[*known].second += ", " + value;
}

// A scan while the block is small, as an API's answers are; past that the
// index: a block of many thousand small fields would otherwise cost a scan
// of all the others for each (seconds of CPU for a block under the bound,
// long enough for the load to time out).
std::optional<std::size_t> Transfer::findField(std::string_view name)
{
    if (fieldIndex_.empty() && headerFields_.size() < kScannedFields) {
        const auto found = std::find_if(headerFields_.begin(), headerFields_.end(),
                                        [name](const auto& field) { return sameFieldName(field.first, name); });
        if (found == headerFields_.end()) {
            return std::nullopt;
        }
        return static_cast<std::size_t>(found - headerFields_.begin());
    }
    if (fieldIndex_.empty()) {
        for (std::size_t place = 0; place < headerFields_.size(); ++place) {
            fieldIndex_.emplace(foldedFieldName(headerFields_[place].first), place);
        }
    }
    if (const auto found = fieldIndex_.find(foldedFieldName(name)); found != fieldIndex_.end()) {
        return found->second;
    }
    return std::nullopt;
}

void Transfer::startHeaderBlock()
{
    statusCode_ = 0;
    httpVersion_.clear();
    headerFields_.clear();
    fieldIndex_.clear();
    lastField_.reset();
    redirecting_ = false;
}

void Transfer::recordResponseOnce()
{
    if (responseRecorded_) {
        return;
    }
    responseRecorded_ = true;
    // Not redirected, the answer is for the request's own URL, as given: no
    // need to parse libcurl's text of it.
    const char* effective = nullptr;
    if (redirects_ > 0) {
        curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &effective);
    }
    auto url = effective != nullptr ? URL::fromString(effective) : std::nullopt;
    if (statusCode_ == 0) {
        long code = 0;
        curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &code);
        statusCode_ = code;
    }
    std::vector<Dictionary::Entry> fields;
    fields.reserve(headerFields_.size());
    for (auto& [name, value] : headerFields_) {
        fields.emplace_back(std::move(name), Value(std::move(value)));
    }
    auto response = HTTPURLResponse::create(url.value_or(connection_.originalRequest()->url()), statusCode_,
                                            httpVersion_.empty() ? "HTTP/1.1" : httpVersion_,
                                            Dictionary::withDistinctKeys(std::move(fields)));
    pending_.push_back({URLConnection::Event::Kind::Response, std::move(response), {}, nullptr});
}

bool Transfer::finish(CURLcode result)
{
    const auto location = redirecting_ ? findField("Location") : std::nullopt;
    if (result == CURLE_OK && location) {
        if (const auto next = redirectTarget(easy_, headerFields_[*location].second)) {
            if (const auto refusal = refusalToFollow(next->url)) {
                fail(*refusal);
                return false;
            }
            followRedirect(next->text, next->url);
            return true;
        }
    }
    if (result == CURLE_OK) {
        recordResponseOnce();
        pending_.push_back({URLConnection::Event::Kind::Finish, nullptr, {}, nullptr});
        return false;
    }
    if (trustCancelled_) {
        fail(NSURLErrorUserCancelledAuthentication);
    } else if (headersTooLarge_ || (result == CURLE_OUT_OF_MEMORY && !responseRecorded_)) {
        // Our bound on the header block, or libcurl's on one line of it
        // (which it reports as a failed allocation).
        fail(NSURLErrorBadServerResponse);
    } else {
        fail(urlErrorCode(result, connection_.originalRequest()->url()));
    }
    return false;
}

std::optional<URLErrorCode> Transfer::refusalToFollow(const URL& next)
{
    if (++redirects_ > kMaximumRedirects) {
        return NSURLErrorHTTPTooManyRedirects;
    }
    // A load that began over https never continues in the clear.
    const bool secure = connection_.originalRequest()->url().scheme() == "https";
    if (!isLoadableScheme(next) || (secure && next.scheme() != "https")) {
        return NSURLErrorUnsupportedURL;
    }
    return std::nullopt;
}

// The caller's fields may hold secrets of the origin they were set for
// ("Private-Token", "X-API-Key", not only "Authorization"), so they go only
// where the request itself went; the transport's own fields go anywhere.
// The method changes as browsers change it: 303 asks for a GET, and 301 and
// 302 turn a POST into one; the body stays behind then, with the fields that
// describe it. 307 and 308 send the method and body again.
void Transfer::followRedirect(const std::string& target, const URL& next)
{
    const auto& request = *connection_.originalRequest();
    const bool toGET = (statusCode_ == 303 && method_ != "HEAD") || ((statusCode_ == 301 || statusCode_ == 302) && method_ == "POST");
    if (toGET) {
        method_ = "GET";
        bodyDropped_ = true;
        curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, nullptr);
        curl_easy_setopt(easy_, CURLOPT_HTTPGET, 1L);
    }
    curl_easy_setopt(easy_, CURLOPT_URL, target.c_str());
    configureHeaderFields(request, sameOrigin(next, request.url()), !bodyDropped_);
    startHeaderBlock();
    headerBytes_ = 0;
}

void Transfer::fail(URLErrorCode code)
{
    pending_.push_back({URLConnection::Event::Kind::Failure, nullptr, {},
                        makeURLError(code, connection_.originalRequest()->url().absoluteString())});
}

}  // namespace platform::urlloading_internal
