#include "qvx/remote/range_fetcher.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <list>
#include <new>
#include <utility>

#include "base/handle.h"

namespace tarnwick::qvx {

namespace {

using Easy = std::unique_ptr<CURL, FreeWith<curl_easy_cleanup>>;
using Multi = std::unique_ptr<CURLM, FreeWith<curl_multi_cleanup>>;
using Clock = std::chrono::steady_clock;

constexpr std::ptrdiff_t maxRunning = 6;
constexpr long maxRedirects = 5;
constexpr long bufferSize = 256 * 1024;
constexpr long connectSeconds = 30;
constexpr long stalledSeconds = 30;       // below this rate:
constexpr long minRate = 100;             // bytes a second
constexpr unsigned maxFirstFailures = 3;  // one after the other: of the first range, which a user waits for,
constexpr unsigned maxFailures = 6;       // and of a later one
constexpr std::chrono::milliseconds firstDelay{200};
constexpr std::uint64_t minProgress = 65536;  // bytes after which the failures are counted anew
constexpr int maxWait = 500;                  // milliseconds, until the question for an interruption is asked again
constexpr int maxIdle = 60000;                // milliseconds, without a request; a new one wakes the thread

enum HttpStatus : long { httpOk = 200, httpPartial = 206, httpNoRange = 416 };

bool mayPass(CURLcode code) {
    switch (code) {
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_PARTIAL_FILE:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_SSL_CONNECT_ERROR: return true;
        default: return false;
    }
}

Error describe(CURLcode code, long status, const std::string& message) {
    const std::string text = message.empty() ? curl_easy_strerror(code) : message;
    if (code == CURLE_UNSUPPORTED_PROTOCOL && status != 0)
        return {"the server redirects to an address that is not https://"};
    if (code == CURLE_OUT_OF_MEMORY) return {"out of memory, or a line of the answer is too long"};
    if (code == CURLE_PEER_FAILED_VERIFICATION)
        return {text + "; $CURL_CA_BUNDLE may name a file with other certificates to trust"};
    return {text};
}

bool mayPass(long status) {
    constexpr std::array passing{408L, 429L, 500L, 502L, 503L, 504L};
    return std::ranges::find(passing, status) != passing.end();
}

std::string describeStatus(long status) {
    std::string text = "the server answers with status " + std::to_string(status);
    if (status == 401) return text + ": it wants a password, which ~/.netrc may have";
    if (status == 403) return text + ": access is denied, or a signature in the URL is wrong or has expired";
    if (status == 404 || status == 410) return text + ": there is no such archive";
    return text;
}

// The curl command reads these variables, the library does not. The last one is preferred, as by the command.
void setAuthorities(CURL* easy) {
    constexpr std::array<std::pair<const char*, CURLoption>, 3> variables{
        {{"SSL_CERT_DIR", CURLOPT_CAPATH}, {"SSL_CERT_FILE", CURLOPT_CAINFO}, {"CURL_CA_BUNDLE", CURLOPT_CAINFO}}};
    for (const auto& [name, option] : variables)
        if (const char* value = std::getenv(name); value && *value) curl_easy_setopt(easy, option, value);
}

// The options of every request. Redirects may not leave https: names, bytes and passwords would be readable.
void setOptions(CURL* easy, const std::string& url) {
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);  // a signature covers the path as it is
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, maxRedirects);
    curl_easy_setopt(easy, CURLOPT_NETRC, long{CURL_NETRC_OPTIONAL});
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "qvx");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    // Several connections are faster than one that is shared.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, bufferSize);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, connectSeconds);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, minRate);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, stalledSeconds);
    setAuthorities(easy);
}

}  // namespace

// The requests that are in progress or wait for another attempt; used by one thread.
class RangeFetcher::Requests {
public:
    Requests(std::string url, Receiver receiver, StopQuestion interrupted)
        : url_(std::move(url)), receiver_(std::move(receiver)), interrupted_(std::move(interrupted)) {
        if (!multi_) throw std::bad_alloc();
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;
    ~Requests() {
        for (auto& request : active_) stop(request);
    }

    void wake() { curl_multi_wakeup(multi_.get()); }  // any thread may call it
    void add(const ByteRange& range);
    void work();  // returns after a while, or when something has happened
    void failAll(const Error& error);

private:
    // A range that is being fetched. It becomes shorter with each byte that comes.
    struct Request {
        Requests& owner;
        ByteRange range;
        Easy easy{};
        AnswerHead head{};
        bool accepted = false;           // the head of the answer is checked
        std::optional<Error> refused{};  // why the answer is not wanted
        std::uint64_t received = 0;      // bytes, in this attempt
        unsigned failures = 0;
        std::optional<Clock::time_point> due{};  // when to start it; none while it runs
        std::array<char, CURL_ERROR_SIZE> message{};

        [[nodiscard]] long status() const;
        bool accept();
        [[nodiscard]] std::optional<Error> fault() const;
        bool receive(Bytes bytes);
    };
    using Place = std::list<Request>::iterator;

    static std::size_t receiveHeader(char* bytes, std::size_t size, std::size_t count, void* request);
    static std::size_t receiveBody(char* bytes, std::size_t size, std::size_t count, void* request);

    void start(Request& request);
    void stop(Request& request);
    [[nodiscard]] std::ptrdiff_t running() const;
    void startDue();
    [[nodiscard]] int waitTime() const;
    void finishDone();
    void finish(Place request, CURLcode code);
    void retryOrFail(Place request, const Error& error);
    void end(Place request, const Status& status);

    const std::string url_;
    const Receiver receiver_;
    const StopQuestion interrupted_;
    Multi multi_{curl_multi_init()};
    std::optional<ObjectState> object_;
    bool opened_ = false;  // a range is complete
    std::list<Request> active_;
};

long RangeFetcher::Requests::Request::status() const {
    long code = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
    return code;
}

// The first answer says what the object is.
bool RangeFetcher::Requests::Request::accept() {
    if (accepted) return true;
    refused = fault();
    if (refused) return false;
    if (!owner.object_) owner.object_ = head.object;
    range.end = std::min(range.end, head.object.size);
    return accepted = true;
}

std::optional<Error> RangeFetcher::Requests::Request::fault() const {
    const long code = status();
    if (code == httpOk)
        return Error{"the server does not support range requests; download the archive and read the file"};
    const Error changed{"the archive was changed on the server while it was read"};
    if (code == httpNoRange) return owner.object_ ? changed : Error{"the archive is empty"};
    if (code != httpPartial) return Error{describeStatus(code)};
    if (!head.begin || *head.begin != range.begin) return Error{"the server answers with another range"};
    if (owner.object_ && !owner.object_->isSame(head.object)) return changed;
    return std::nullopt;
}

bool RangeFetcher::Requests::Request::receive(Bytes bytes) {
    if (!accept()) return false;
    if (bytes.size() > range.end - range.begin) {
        refused = Error{"the server sends more than it was asked for"};
        return false;
    }
    owner.receiver_.receive(range.begin, bytes);
    range.begin += bytes.size();
    received += bytes.size();
    return true;
}

// What libcurl calls; an exception must not pass through it. It ends the request when the result is not the size.
std::size_t RangeFetcher::Requests::receiveHeader(char* bytes, std::size_t size, std::size_t count, void* request) {
    auto& answer = *static_cast<Request*>(request);
    try {
        // After the head of the answer only trailers come.
        if (!answer.accepted) answer.head.add({bytes, size * count});
        return size * count;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

std::size_t RangeFetcher::Requests::receiveBody(char* bytes, std::size_t size, std::size_t count, void* request) {
    try {
        const Bytes body(reinterpret_cast<const std::uint8_t*>(bytes), size * count);
        return static_cast<Request*>(request)->receive(body) ? body.size() : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

void RangeFetcher::Requests::add(const ByteRange& range) {
    active_.push_back({.owner = *this, .range = range, .due = Clock::now()});
}

void RangeFetcher::Requests::failAll(const Error& error) {
    while (!active_.empty()) end(active_.begin(), error);
}

void RangeFetcher::Requests::work() {
    startDue();
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    finishDone();
    if (interrupted_()) failAll({"interrupted", ECANCELED});
    curl_multi_poll(multi_.get(), nullptr, 0, waitTime(), nullptr);
}

void RangeFetcher::Requests::start(Request& request) {
    request.due.reset();
    request.head = {};
    request.accepted = false;
    request.received = 0;
    request.easy.reset(curl_easy_init());
    CURL* easy = request.easy.get();
    if (!easy) throw std::bad_alloc();
    setOptions(easy, url_);
    const std::string range = std::to_string(request.range.begin) + '-' + std::to_string(request.range.end - 1);
    curl_easy_setopt(easy, CURLOPT_RANGE, range.c_str());
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &receiveHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &request);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &receiveBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &request);
    request.message.front() = '\0';
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, request.message.data());
    if (curl_multi_add_handle(multi_.get(), easy) != CURLM_OK) throw std::bad_alloc();
}

void RangeFetcher::Requests::stop(Request& request) {
    if (!request.easy) return;
    curl_multi_remove_handle(multi_.get(), request.easy.get());
    request.easy.reset();
}

std::ptrdiff_t RangeFetcher::Requests::running() const {
    return std::ranges::count_if(active_, [](const Request& request) { return !request.due; });
}

void RangeFetcher::Requests::startDue() {
    auto free = maxRunning - running();
    for (auto& request : active_) {
        if (free == 0) return;
        if (!request.due || *request.due > Clock::now()) continue;
        start(request);
        --free;
    }
}

int RangeFetcher::Requests::waitTime() const {
    if (active_.empty()) return maxIdle;
    if (running() == maxRunning) return maxWait;
    auto time = std::chrono::milliseconds(maxWait);
    for (const auto& request : active_)
        if (request.due)
            time = std::min(time, std::chrono::ceil<std::chrono::milliseconds>(*request.due - Clock::now()));
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(time.count(), 0));
}

void RangeFetcher::Requests::finishDone() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode code = message->data.result;
        const auto isIt = [easy = message->easy_handle](const Request& request) { return request.easy.get() == easy; };
        const auto request = std::ranges::find_if(active_, isIt);
        if (request != active_.end()) finish(request, code);
    }
}

void RangeFetcher::Requests::finish(Place request, CURLcode code) {
    // An answer without a body is not checked yet.
    if (code == CURLE_OK) request->accept();
    const long status = request->status();
    const std::string message = request->message.data();
    stop(*request);
    // Also when the connection was lost after the last byte.
    if (request->accepted && !request->refused && request->range.begin == request->range.end) return end(request, {});
    if (request->refused)
        return mayPass(status) ? retryOrFail(request, *request->refused) : end(request, *request->refused);
    if (code == CURLE_OK || code == CURLE_PARTIAL_FILE)
        return retryOrFail(request, Error{"the server ends its answer too early"});
    const Error error = describe(code, status, message);
    // A host that was found may be lost for a while, when a laptop wakes up.
    const bool lostHost = opened_ && code == CURLE_COULDNT_RESOLVE_HOST;
    return lostHost || mayPass(code) ? retryOrFail(request, error) : end(request, error);
}

void RangeFetcher::Requests::retryOrFail(Place request, const Error& error) {
    if (request->received >= minProgress) request->failures = 0;
    if (request->failures == (opened_ ? maxFailures : maxFirstFailures)) return end(request, error);
    request->due = Clock::now() + firstDelay * (1U << request->failures++);
    request->refused.reset();
}

void RangeFetcher::Requests::end(Place request, const Status& status) {
    opened_ = opened_ || status;
    Status finished = status;
    // A failure of the system, and not damage of the archive.
    if (!status && status.error().code == 0) finished = Error{status.error().text, EIO};
    stop(*request);
    const ByteRange missing = request->range;
    active_.erase(request);
    receiver_.finish(finished, missing, object_.value_or(ObjectState{}));
}

RangeFetcher::RangeFetcher(std::string url, Receiver receiver, StopQuestion interrupted) {
    static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialized != CURLE_OK) throw std::bad_alloc();
    requests_ = std::make_unique<Requests>(std::move(url), std::move(receiver), std::move(interrupted));
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

RangeFetcher::~RangeFetcher() {
    thread_.request_stop();
    requests_->wake();
}

void RangeFetcher::fetch(const ByteRange& range) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(range);
    requests_->wake();
}

void RangeFetcher::run(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        try {
            for (const auto& range : takeQueue()) requests_->add(range);
            requests_->work();
        } catch (const std::bad_alloc&) {
            requests_->failAll({"out of memory"});
        }
    }
}

std::vector<ByteRange> RangeFetcher::takeQueue() {
    const std::lock_guard lock(mutex_);
    return std::exchange(queue_, {});
}

}  // namespace tarnwick::qvx
