#include "DavClient.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <random>
#include <thread>

#include "Multistatus.h"

namespace qn::drive {
namespace {

// libcurl's global set-up, once per process, before the first handle.
void initialiseCurl() {
    static const bool done = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    (void)done;
}

bool transient(CURLcode code) {
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_SSL_CONNECT_ERROR:
            return true;
        default:
            return false;
    }
}

// One transfer's state, seen by libcurl's callbacks.
struct Transfer {
    const DavClient::Request* request = nullptr;
    DavClient::Response response;
    std::uint64_t sent = 0;
    std::uint64_t told = 0;     // the most the caller was told of; a body sent again stays under it
    unsigned long offered = 0;  // the CURLAUTH_ methods the server's challenges named
    bool cancelled = false;
    int localError = 0;

    bool tell(std::uint64_t done, std::uint64_t total) {
        told = std::max(told, done);
        if (request->progress && !request->progress(told, total)) {
            cancelled = true;
        }
        return !cancelled;
    }
};

std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* data) {
    auto& transfer = *static_cast<Transfer*>(data);
    const auto& request = *transfer.request;
    const std::uint64_t left = request.uploadSize - transfer.sent;
    const std::size_t wanted = std::min<std::uint64_t>(size * count, left);
    if (wanted == 0) {
        return 0;
    }
    // The last bytes wait until the caller has had its last word.
    if (wanted == left && !transfer.tell(request.uploadSize, request.uploadSize)) {
        return CURL_READFUNC_ABORT;
    }
    const ssize_t got = ::pread(request.uploadFd, buffer, wanted,
                                static_cast<off_t>(request.uploadOffset + transfer.sent));
    if (got <= 0) {
        transfer.localError = got < 0 ? errno : EIO;
        return CURL_READFUNC_ABORT;
    }
    transfer.sent += static_cast<std::uint64_t>(got);
    if (transfer.sent < request.uploadSize && !transfer.tell(transfer.sent, request.uploadSize)) {
        return CURL_READFUNC_ABORT;
    }
    return static_cast<std::size_t>(got);
}

// Authentication may make libcurl send the body again: it starts over.
int seekBody(void* data, curl_off_t offset, int origin) {
    auto& transfer = *static_cast<Transfer*>(data);
    if (origin != SEEK_SET || offset < 0 ||
        static_cast<std::uint64_t>(offset) > transfer.request->uploadSize) {
        return CURL_SEEKFUNC_FAIL;
    }
    transfer.sent = static_cast<std::uint64_t>(offset);
    return CURL_SEEKFUNC_OK;
}

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    const std::size_t bytes = size * count;
    const auto& request = *transfer.request;
    const int status = transfer.response.status;
    if (request.downloadFd < 0 || status < 200 || status >= 300) {
        transfer.response.body.append(data, bytes);
        return bytes;
    }
    for (std::size_t written = 0; written < bytes;) {
        const ssize_t now = ::write(request.downloadFd, data + written, bytes - written);
        if (now < 0 && errno == EINTR) {
            continue;
        }
        if (now <= 0) {
            transfer.localError = now < 0 ? errno : EIO;
            return 0;
        }
        written += static_cast<std::size_t>(now);
    }
    transfer.response.downloaded += bytes;
    return bytes;
}

std::size_t readHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto& response = static_cast<Transfer*>(user)->response;
    const std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        // A new answer (after a 100 Continue or an authentication round): start over.
        response.headers.clear();
        const auto space = line.find(' ');
        response.status = space == std::string_view::npos
                              ? 0
                              : std::atoi(std::string(line.substr(space + 1, 3)).c_str());
        return line.size();
    }
    const auto colon = line.find(':');
    if (colon != std::string_view::npos) {
        std::string name(line.substr(0, colon));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
            value.remove_prefix(1);
        }
        if (name == "www-authenticate") {
            const auto scheme = [&](std::string_view word) {
                return value.size() >= word.size() &&
                       strncasecmp(value.data(), word.data(), word.size()) == 0;
            };
            static_cast<Transfer*>(user)->offered |= scheme("Basic")    ? CURLAUTH_BASIC
                                                     : scheme("Digest") ? CURLAUTH_DIGEST
                                                                        : 0;
        }
        while (!value.empty() && (value.back() == '\r' || value.back() == '\n')) {
            value.remove_suffix(1);
        }
        response.headers[name] = value;
    }
    return line.size();
}

int downloadProgress(void* data, curl_off_t total, curl_off_t done, curl_off_t, curl_off_t) {
    auto& transfer = *static_cast<Transfer*>(data);
    const auto& request = *transfer.request;
    if (request.uploadFd >= 0 || done == 0 || !request.progress) {
        return transfer.cancelled ? 1 : 0;
    }
    return transfer.tell(static_cast<std::uint64_t>(done),
                         static_cast<std::uint64_t>(std::max(total, done)))
               ? 0
               : 1;
}

}  // namespace

struct DavClient::Handle {
    CURL* curl = nullptr;
    ~Handle() {
        if (curl != nullptr) {
            curl_easy_cleanup(curl);
        }
    }
};

DavClient::DavClient(Options options) : options_(std::move(options)) {
    static_assert(kEitherAuthentication == (CURLAUTH_BASIC | CURLAUTH_DIGEST));
    initialiseCurl();
    base_ = options_.url;
    if (base_.empty() || base_.back() != '/') {
        base_ += '/';
    }
}

DavClient::~DavClient() = default;

std::string DavClient::urlOf(const std::string& path) const {
    return base_ + percentEncodePath(path);
}

std::unique_ptr<DavClient::Handle> DavClient::takeHandle() {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            auto handle = std::move(idle_.back());
            idle_.pop_back();
            curl_easy_reset(handle->curl);
            return handle;
        }
    }
    auto handle = std::make_unique<Handle>();
    handle->curl = curl_easy_init();
    return handle->curl != nullptr ? std::move(handle) : nullptr;
}

void DavClient::giveBack(std::unique_ptr<Handle> handle) {
    std::lock_guard lock(mutex_);
    if (idle_.size() < 8) {
        idle_.push_back(std::move(handle));
    }
}

std::optional<DavClient::Response> DavClient::perform(const Request& request, Failure* failure,
                                                      std::string* error) {
    const auto fail = [&](Failure why, std::string text) -> std::optional<Response> {
        if (failure != nullptr) {
            *failure = why;
        }
        if (error != nullptr) {
            *error = std::move(text);
        }
        return std::nullopt;
    };
    auto handle = takeHandle();
    if (handle == nullptr) {
        return fail(Failure::Local, "no memory for a connection");
    }
    CURL* curl = handle->curl;
    const std::string url = urlOf(request.path);
    std::mt19937 random(std::random_device{}());
    std::chrono::milliseconds backOff = options_.firstBackOff;
    const off_t downloadStart =
        request.downloadFd >= 0 ? ::lseek(request.downloadFd, 0, SEEK_CUR) : 0;
    std::uint64_t told = 0;
    for (int attempt = 0;; ++attempt) {
        Transfer transfer;
        transfer.request = &request;
        transfer.told = told;
        curl_slist* headers = nullptr;
        bool typed = false;
        for (const auto& header : request.headers) {
            headers = curl_slist_append(headers, header.c_str());
            typed = typed ||
                    (header.size() >= 13 && strncasecmp(header.c_str(), "Content-Type:", 13) == 0);
        }
        if (!request.body.empty() && !typed) {
            // A WebDAV body is XML; libcurl would call it a form.
            headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
        }
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, readHeader);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeBody);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, downloadProgress);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS,
                         static_cast<long>(options_.connectTimeout.count()));
        // Given up when less than a byte a second moves for the stall time-out.
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME,
                         static_cast<long>(options_.stallTimeout.count()));
        if (request.method == "HEAD") {
            curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        }
        if (!options_.user.empty()) {
            curl_easy_setopt(curl, CURLOPT_HTTPAUTH, authentication_.load());
            curl_easy_setopt(curl, CURLOPT_USERNAME, options_.user.c_str());
            curl_easy_setopt(curl, CURLOPT_PASSWORD, options_.password.c_str());
        }
        if (!options_.certificateAuthority.empty()) {
            curl_easy_setopt(curl, CURLOPT_CAINFO, options_.certificateAuthority.c_str());
        }
        if (options_.allowUnverifiedCertificate) {
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
        }
        if (request.uploadFd >= 0) {
            curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE,
                             static_cast<curl_off_t>(request.uploadSize));
            curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
            curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
            curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, seekBody);
            curl_easy_setopt(curl, CURLOPT_SEEKDATA, &transfer);
        } else if (!request.body.empty()) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(request.body.size()));
        }
        char message[CURL_ERROR_SIZE] = {};
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, message);
        const CURLcode code = curl_easy_perform(curl);
        curl_slist_free_all(headers);
        if (transfer.cancelled) {
            return fail(Failure::Cancelled, "the transfer was stopped");
        }
        if (transfer.localError != 0) {
            return fail(Failure::Local, std::strerror(transfer.localError));
        }
        const std::string why = message[0] != '\0' ? message : curl_easy_strerror(code);
        if (code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE) {
            return fail(Failure::Certificate,
                        fmt::format("the server's certificate cannot be trusted ({}); allow it "
                                    "explicitly only if you know it is the right server",
                                    why));
        }
        const bool answered = code == CURLE_OK;
        const int status = transfer.response.status;
        told = transfer.told;
        if (transfer.offered != 0) {
            // A server that takes Basic only gets the credentials with every request from now
            // on, instead of a first try without them that an upload may have to send again.
            authentication_ = answered && status != 401 && transfer.offered == CURLAUTH_BASIC
                                  ? CURLAUTH_BASIC
                                  : kEitherAuthentication;
        }
        const bool busy = answered && (status == 502 || status == 503 || status == 504);
        if ((answered && !busy) || !request.repeatable || attempt >= options_.retries ||
            (!answered && !transient(code))) {
            if (answered) {
                giveBack(std::move(handle));
                return std::move(transfer.response);
            }
            return fail(Failure::Unreachable, fmt::format("{} did not answer: {}", url, why));
        }
        // Tried again after a pause that doubles each time, with jitter so that devices that
        // lost the server together do not come back together.
        const auto pause = backOff + std::chrono::milliseconds(random() % (backOff.count() + 1));
        std::this_thread::sleep_for(pause);
        backOff *= 2;
        if (request.downloadFd >= 0 && transfer.response.downloaded > 0) {
            // What a failed try wrote is dropped; a caller that wants to resume asks by range.
            if (::ftruncate(request.downloadFd, downloadStart) != 0 ||
                ::lseek(request.downloadFd, downloadStart, SEEK_SET) < 0) {
                return fail(Failure::Local, std::strerror(errno));
            }
        }
    }
}

}  // namespace qn::drive
