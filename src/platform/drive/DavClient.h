#pragma once

// The network store's line to its WebDAV server: one request at a time per call, with the
// account's credentials (basic or digest), TLS that refuses a certificate it cannot verify unless
// told otherwise, time-outs, and retries with back-off for requests that may be sent again.
// Connections are kept alive between calls. Private to the drive; every member may be called
// from any thread, also at once.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qn::drive {

class DavClient {
public:
    struct Options {
        /// The collection every path is relative to: "https://host/dav/store".
        std::string url;
        std::string user;
        std::string password;
        /// A PEM file of certificates to trust besides the system's; "" for none.
        std::string certificateAuthority;
        /// Accept a server certificate that does not verify. Only ever on the user's word.
        bool allowUnverifiedCertificate = false;
        std::chrono::milliseconds connectTimeout{10'000};
        /// A transfer that moves no byte for this long is given up.
        std::chrono::seconds stallTimeout{30};
        /// Tries after the first, for requests that may be repeated.
        int retries = 3;
        std::chrono::milliseconds firstBackOff{100};
    };

    struct Request {
        std::string method = "GET";
        /// Relative to the options' URL, not encoded: "Documents/Notes.txt".
        std::string path;
        /// Header lines without their line end: "Depth: 1".
        std::vector<std::string> headers;
        /// A small body sent as it is.
        std::string body;
        /// A body read from this descriptor from `uploadOffset` (`uploadSize` bytes) instead;
        /// it is read again from the start when the request is repeated.
        int uploadFd = -1;
        std::uint64_t uploadOffset = 0;
        std::uint64_t uploadSize = 0;
        /// A 2xx answer's body goes to this descriptor (at its current offset) instead of
        /// `Response::body`.
        int downloadFd = -1;
        /// Told of the body bytes moved out of the total (the upload's, else the download's),
        /// never less than before: a body sent again (a retry, an authentication round) is
        /// told of once it passes where it had got. Answering false stops the transfer. An
        /// upload's last call comes before its last bytes are sent.
        std::function<bool(std::uint64_t done, std::uint64_t total)> progress;
        /// Whether sending it twice does no harm (GET, PROPFIND, PUT of whole contents...).
        bool repeatable = true;
    };

    struct Response {
        int status = 0;
        /// Header names in lower case; the last value of a repeated header.
        std::map<std::string, std::string> headers;
        std::string body;
        /// Body bytes written to the request's `downloadFd`.
        std::uint64_t downloaded = 0;
    };

    /// Why no answer came.
    enum class Failure {
        Unreachable,  // no connection, or it broke, after every try
        Certificate,  // the server's certificate does not verify
        Cancelled,    // the progress handler said stop
        Local,        // reading or writing the local file failed
    };

    explicit DavClient(Options options);
    ~DavClient();
    DavClient(const DavClient&) = delete;
    DavClient& operator=(const DavClient&) = delete;

    const Options& options() const { return options_; }
    /// The full URL of `path` (encoded), for headers that name resources (If, Destination).
    std::string urlOf(const std::string& path) const;

    /// The server's answer, whatever its status; nullopt with `failure` and a description in
    /// `error` when none came.
    std::optional<Response> perform(const Request& request, Failure* failure, std::string* error);

private:
    struct Handle;
    std::unique_ptr<Handle> takeHandle();
    void giveBack(std::unique_ptr<Handle> handle);

    Options options_;
    std::string base_;  // the URL's scheme, host and path, ending in "/"
    std::mutex mutex_;  // guards idle_
    std::vector<std::unique_ptr<Handle>> idle_;
    // The CURLAUTH_ methods offered to the server: both until it is seen to take Basic only.
    static constexpr unsigned long kEitherAuthentication = 1UL | 2UL;  // Basic | Digest
    std::atomic<unsigned long> authentication_{kEitherAuthentication};
};

}  // namespace qn::drive
