#pragma once

// Real WebDAV servers for tests, and a proxy that disturbs the traffic to them.
//
// `WebDAVServer` starts Apache httpd (mod_dav with mod_dav_fs) or `rclone serve webdav` on
// 127.0.0.1, on a free port, in a temporary directory of its own, with the authentication and TLS
// a test asks for, and stops it when it goes away. `scripts/webdav-servers.sh` installs both; a
// test first asks `WebDAVServer::unavailable` and skips when this machine cannot run the server:
//
//     if (auto why = WebDAVServer::unavailable(Kind::Apache, options)) GTEST_SKIP() << *why;
//     auto server = WebDAVServer::start(Kind::Apache, options);
//
// `FaultProxy` sits between a client and a plain-HTTP server and, on command, answers a request
// itself, cuts a transfer after some bytes, or holds it until released.
//
// Both are used from the test's thread; a server's `url()` and the proxy's may be used from any.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace qn::test {

/// A WebDAV server process serving one data directory at `url()`.
///
/// The server runs as the current user. Run as root, Apache's workers run as `nobody`: the
/// temporary directory and the data directory are handed to that user (recursively) every time
/// the server starts, so a file a test writes there directly while the server runs must be
/// handed over too before the server can change it, and an explicit data directory must be
/// reachable by `nobody`.
///
/// The process is in a process group of its own and is told to stop (SIGTERM, through
/// PR_SET_PDEATHSIG) when the thread that started it exits, so a test that dies leaves no server
/// running (only its temporary directory): start and restart it from the test's own thread.
///
/// Failures to start throw std::runtime_error with the end of the server's log.
class WebDAVServer {
public:
    enum class Kind { Apache, Rclone };
    enum class Authentication { None, Basic, Digest };

    struct Options {
        Authentication authentication = Authentication::None;
        std::string user = "alice";
        std::string password = "wonderland";
        /// HTTPS with a self-signed certificate for 127.0.0.1 (see `certificatePath`).
        bool tls = false;
        /// The directory served; "" for `data/` in the server's temporary directory. One given
        /// here is created when missing and left in place when the server goes away.
        std::string dataDirectory;
        /// Apache only: directives added at the end of the server's configuration, e.g.
        /// "DavDepthInfinity On\n".
        std::string apacheDirectives;
        /// rclone only: arguments added to `rclone serve webdav`, e.g. {"--etag-hash", "MD5"}.
        /// rclone keeps directory listings for --dir-cache-time (5 minutes): pass
        /// {"--dir-cache-time", "0s"} for it to see what a test writes into the data directory
        /// directly.
        std::vector<std::string> rcloneArguments;
        /// How long `start` and `restart` wait for the server to answer.
        std::chrono::milliseconds startTimeout{15000};
    };

    /// Why this machine cannot run `kind` with `options` (a binary is missing, or the server
    /// cannot do what is asked: rclone has no Digest authentication); nullopt when it can.
    static std::optional<std::string> unavailable(Kind kind, const Options& options);
    static std::optional<std::string> unavailable(Kind kind) { return unavailable(kind, {}); }

    /// Starts the server and returns once it answers an OPTIONS request. A port taken by
    /// someone else between choosing and binding it is retried with another.
    static std::unique_ptr<WebDAVServer> start(Kind kind, Options options);
    static std::unique_ptr<WebDAVServer> start(Kind kind) { return start(kind, {}); }

    /// Stops the server (as `stop`) and removes its temporary directory.
    ~WebDAVServer();
    WebDAVServer(const WebDAVServer&) = delete;
    WebDAVServer& operator=(const WebDAVServer&) = delete;

    Kind kind() const { return kind_; }
    const Options& options() const { return options_; }
    /// "http://127.0.0.1:PORT/" or "https://…/": the collection that is the data directory.
    const std::string& url() const { return url_; }
    std::uint16_t port() const { return port_; }
    const std::string& dataDirectory() const { return options_.dataDirectory; }
    /// The PEM certificate a client must trust with TLS (CURLOPT_CAINFO); "" without.
    const std::string& certificatePath() const { return certificate_; }
    /// Everything the server logged (its error log and standard output), across restarts.
    std::string log() const;
    bool isRunning() const { return pid_ > 0; }

    /// Asks the server to stop (SIGTERM) and waits until every process of it has gone
    /// (SIGKILL after 10 seconds). Nothing when it is not running.
    void stop();
    /// Kills every process of the server at once (SIGKILL), as a crash or a power cut would:
    /// connections drop in the middle of whatever they were doing.
    void kill();
    /// Stops the server when it runs, then starts it again on the same port and data (waiting
    /// a few seconds for the port when something still holds it).
    void restart();

private:
    WebDAVServer(Kind kind, Options options);
    void initialise();
    void prepare();
    void launch();
    bool waitUntilAnswering(std::string* why);
    std::vector<std::string> commandLine() const;
    void writeApacheConfiguration() const;
    void signalAndReap(int signal, std::chrono::milliseconds grace);

    Kind kind_;
    Options options_;
    std::string directory_;
    std::string certificate_;
    std::string key_;
    std::string passwordFile_;
    std::string url_;
    std::uint16_t port_ = 0;
    pid_t pid_ = -1;
};

/// A loopback TCP proxy in front of a plain-HTTP server that follows HTTP/1.1 framing
/// (Content-Length and chunked request bodies) and can disturb it on command.
///
/// Each fault waits, in the order injected, for the next request whose method and path match,
/// and applies to that request only:
/// - `respond`: the proxy answers it with the given status itself (with "Connection: close"),
///   does not forward it, reads and drops what the client still sends, and closes;
/// - `dropResponseAfter(n)` / `stallResponseAfter(n)`: the response is forwarded up to `n`
///   bytes of its body (counted as on the wire, chunk framing included), then the connection is
///   closed on both sides, or held (no byte moves either way, the sockets stay open) until
///   `releaseStalls`;
/// - `dropRequestAfter(n)` / `stallRequestAfter(n)`: the same for the request's body, as a
///   client killed, or stuck, in the middle of an upload would leave it.
///
/// What the server sent before a stall still sits in the sockets' buffers (a few MiB at most) and
/// reaches the client once released, even if the server was killed meanwhile: a download meant to
/// be cut by a kill must be larger than that.
///
/// A drop or stall whose byte count lies beyond the body's end has no effect. While the server is
/// down the proxy still accepts connections and closes them at once: the client sees an empty
/// reply (CURLE_GOT_NOTHING) rather than a refused connection.
///
/// Limits: plain HTTP/1.1 only (no TLS, no HTTP/2, no pipelining: a client waits for each
/// response before sending the next request, as libcurl does); requests whose body ends with the
/// connection are not understood; a proxy thread blocks while a peer does not read what it
/// sends. One thread per connection; every member may be called from any thread.
class FaultProxy {
public:
    /// Which requests a fault waits for: an empty field matches anything. `path` is compared
    /// with the request target as sent (percent-encoded), without its query; one ending in "*"
    /// matches every target that starts with what comes before it.
    struct Match {
        std::string method;
        std::string path;
    };

    struct Fault {
        enum class Action { Respond, Drop, Stall };
        Action action = Action::Respond;
        int status = 0;
        /// Respond: header lines added to the answer, each ending in "\r\n".
        std::string headers;
        std::string body;
        /// Drop and Stall: bytes of the body forwarded first.
        std::uint64_t afterBytes = 0;
        /// Drop and Stall: the request's body rather than the response's.
        bool inRequest = false;

        static Fault respond(int status, std::string headers = {}, std::string body = {});
        static Fault dropResponseAfter(std::uint64_t bytes);
        static Fault stallResponseAfter(std::uint64_t bytes);
        static Fault dropRequestAfter(std::uint64_t bytes);
        static Fault stallRequestAfter(std::uint64_t bytes);
    };

    /// A request the proxy saw, faulted or not.
    struct Request {
        std::string method;
        std::string target;
        /// The request line and header lines as sent, without the final empty line.
        std::string head;
    };

    /// Listens on a free loopback port and forwards every connection to 127.0.0.1:`port`.
    explicit FaultProxy(std::uint16_t port);
    /// Closes every connection and waits for its threads.
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    /// "http://127.0.0.1:PORT/".
    std::string url() const;
    std::uint16_t port() const { return port_; }

    void inject(Match match, Fault fault);
    /// Faults not triggered yet.
    std::size_t pendingFaults() const;
    void clearFaults();
    /// Waits until some transfer is held by a stall fault; false after `timeout`.
    bool waitUntilStalled(std::chrono::milliseconds timeout);
    /// Lets every held transfer go on.
    void releaseStalls();
    /// Every request seen so far, in order.
    std::vector<Request> requests() const;

private:
    struct Connection;
    struct Pending {
        Match match;
        Fault fault;
    };

    void acceptLoop();
    void serve(Connection& connection);
    std::optional<Fault> takeFault(const std::string& method, const std::string& target);
    void noteStalled(int change);

    std::uint16_t upstreamPort_;
    std::uint16_t port_ = 0;
    int listener_ = -1;
    int stopEvent_ = -1;
    std::atomic<std::uint64_t> releases_{0};

    mutable std::mutex mutex_;
    std::condition_variable stalledChanged_;
    std::deque<Pending> faults_;
    std::vector<Request> requests_;
    std::size_t stalled_ = 0;
    std::list<std::unique_ptr<Connection>> connections_;
    std::thread acceptor_;
};

}  // namespace qn::test
