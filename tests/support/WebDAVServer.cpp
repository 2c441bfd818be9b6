#include "support/WebDAVServer.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "support/TemporaryDirectory.h"

namespace qn::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kApache = "/usr/sbin/apache2";
constexpr const char* kApacheModules = "/usr/lib/apache2/modules";
constexpr const char* kRealm = "qnicloud";
// The user Apache's workers run as when the tests run as root: Apache refuses to serve as root.
constexpr const char* kUnprivilegedUser = "nobody";
constexpr const char* kUnprivilegedGroup = "nogroup";

void writeWhole(const std::string& path, const std::string& contents) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << contents;
    if (!stream.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string lastLines(const std::string& text, std::size_t count) {
    std::size_t end = text.size();
    if (end > 0 && text[end - 1] == '\n') {
        --end;
    }
    for (; count > 0; --count) {
        const auto newline = end == 0 ? std::string::npos : text.rfind('\n', end - 1);
        if (newline == std::string::npos) {
            return text;
        }
        end = newline;
    }
    return text.substr(end + 1);
}

std::string findInPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string directories = path ? path : "";
    directories += ":/usr/sbin:/usr/bin:/sbin:/bin";
    std::stringstream stream(directories);
    std::string directory;
    while (std::getline(stream, directory, ':')) {
        const std::string candidate = directory + "/" + name;
        if (!directory.empty() && ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return {};
}

/// Starts `argv` in a process group of its own with standard output and error appended to
/// `logPath` (standard output to `outputPath` instead, when given). Everything the child does
/// before exec is async-signal-safe: the test process may have other threads.
pid_t spawn(const std::vector<std::string>& argv, const std::string& logPath,
            const std::string& outputPath = {}) {
    std::vector<char*> arguments;
    for (const auto& argument : argv) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid == 0) {
        ::setpgid(0, 0);
        // SIGTERM rather than SIGKILL: Apache then takes its workers down with it.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) {
            ::_exit(127);
        }
        const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const int output = outputPath.empty()
                               ? log
                               : ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int null = ::open("/dev/null", O_RDONLY);
        if (log < 0 || output < 0 || null < 0) {
            ::_exit(127);
        }
        ::dup2(null, 0);
        ::dup2(output, 1);
        ::dup2(log, 2);
        ::close_range(3, ~0U, 0);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    return pid;
}

/// Runs `argv` to its end and returns its standard output; throws, with what it printed, when
/// it fails.
std::string run(const std::vector<std::string>& argv, const std::string& logPath) {
    const auto before = readFile(logPath).size();
    const std::string output = logPath + ".out";
    const pid_t pid = spawn(argv, logPath, output);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(argv[0] + " failed:\n" + readFile(logPath).substr(before));
    }
    std::string printed = readFile(output);
    fs::remove(output);
    return printed;
}

bool hasExited(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/// Binds `fd` (listening when asked) to a free loopback port and returns the port; closes `fd`
/// and throws, saying `what` failed, when it cannot.
std::uint16_t bindLoopback(int fd, bool listen, const char* what) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (listen && ::listen(fd, 64) != 0) ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int error = errno;
        ::close(fd);
        throw std::system_error(error, std::generic_category(), what);
    }
    return ntohs(address.sin_port);
}

/// A port nobody listens on now, below the range the kernel hands out to outgoing connections:
/// a client's connection must not take a server's port while the server restarts. Someone may
/// still take it before the server binds it; `start` then tries another.
std::uint16_t freePort() {
    int firstEphemeral = 32768;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> firstEphemeral;
    const int lowest = std::clamp(firstEphemeral / 2, 1024, 10000);
    std::mt19937 random(std::random_device{}());
    for (int tries = 0; firstEphemeral > lowest && tries < 100; ++tries) {
        const auto port = static_cast<std::uint16_t>(
            lowest + static_cast<int>(random() % (firstEphemeral - lowest)));
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = loopback(port);
        const bool free =
            fd >= 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        if (free) {
            return port;
        }
    }
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::uint16_t port = bindLoopback(fd, false, "choosing a free port");
    ::close(fd);
    return port;
}

void handOver(const std::string& path, uid_t user, gid_t group) {
    std::error_code ignored;
    ::lchown(path.c_str(), user, group);
    for (fs::recursive_directory_iterator it(path, ignored), end; it != end;
         it.increment(ignored)) {
        ::lchown(it->path().c_str(), user, group);
    }
}

std::size_t discard(char*, std::size_t size, std::size_t count, void*) {
    return size * count;
}

/// The HTTP status of an OPTIONS request to `url`, 0 when nothing answered.
long optionsStatus(const std::string& url, const std::string& certificate) {
    CURL* curl = ::curl_easy_init();
    if (curl == nullptr) {
        return 0;
    }
    ::curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    ::curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "OPTIONS");
    ::curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    ::curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 2000L);
    ::curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (!certificate.empty()) {
        ::curl_easy_setopt(curl, CURLOPT_CAINFO, certificate.c_str());
    }
    long status = 0;
    if (::curl_easy_perform(curl) == CURLE_OK) {
        ::curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    }
    ::curl_easy_cleanup(curl);
    return status;
}

bool sendAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    });
}

const char* reasonPhrase(int status) {
    static const std::map<int, const char*> phrases = {
        {400, "Bad Request"},         {401, "Unauthorized"},
        {403, "Forbidden"},           {404, "Not Found"},
        {405, "Method Not Allowed"},  {409, "Conflict"},
        {412, "Precondition Failed"}, {423, "Locked"},
        {429, "Too Many Requests"},   {500, "Internal Server Error"},
        {502, "Bad Gateway"},         {503, "Service Unavailable"},
        {504, "Gateway Timeout"},     {507, "Insufficient Storage"},
    };
    const auto found = phrases.find(status);
    return found == phrases.end() ? "Injected" : found->second;
}

}  // namespace

// The server.

std::optional<std::string> WebDAVServer::unavailable(Kind kind, const Options& options) {
    const char* install = " (scripts/webdav-servers.sh installs it)";
    if (kind == Kind::Apache) {
        if (::access(kApache, X_OK) != 0 ||
            ::access((std::string(kApacheModules) + "/mod_dav_fs.so").c_str(), R_OK) != 0) {
            return std::string("Apache httpd with mod_dav is not installed") + install;
        }
    } else {
        if (findInPath("rclone").empty()) {
            return std::string("rclone is not installed") + install;
        }
        if (options.authentication == Authentication::Digest) {
            return std::string("rclone serve webdav has no Digest authentication");
        }
    }
    const bool needsOpenSSL =
        options.tls || (kind == Kind::Apache && options.authentication != Authentication::None);
    if (needsOpenSSL && findInPath("openssl").empty()) {
        return std::string("openssl is not installed") + install;
    }
    return std::nullopt;
}

std::unique_ptr<WebDAVServer> WebDAVServer::start(Kind kind, Options options) {
    if (auto why = unavailable(kind, options)) {
        throw std::runtime_error("cannot start the WebDAV server: " + *why);
    }
    std::unique_ptr<WebDAVServer> server(new WebDAVServer(kind, std::move(options)));
    server->initialise();
    for (int attempt = 1;; ++attempt) {
        server->port_ = freePort();
        server->url_ = std::string(server->options_.tls ? "https" : "http") +
                       "://127.0.0.1:" + std::to_string(server->port_) + "/";
        server->prepare();
        const auto logged = server->log().size();
        server->launch();
        std::string why;
        if (server->waitUntilAnswering(&why)) {
            return server;
        }
        const bool portTaken = server->log().find("already in use", logged) != std::string::npos;
        if (!portTaken || attempt == 5) {
            throw std::runtime_error("the WebDAV server did not start: " + why + "\n" +
                                     lastLines(server->log(), 30));
        }
    }
}

WebDAVServer::WebDAVServer(Kind kind, Options options) : kind_(kind), options_(std::move(options)) {
    std::string pattern = "/tmp/qn-webdav-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    directory_ = pattern;
    if (options_.dataDirectory.empty()) {
        options_.dataDirectory = directory_ + "/data";
    }
}

void WebDAVServer::initialise() {
    fs::create_directories(options_.dataDirectory);
    const std::string log = directory_ + "/setup.log";

    if (options_.tls) {
        certificate_ = directory_ + "/certificate.pem";
        key_ = directory_ + "/key.pem";
        run({findInPath("openssl"), "req", "-x509", "-newkey", "ec", "-pkeyopt",
             "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key_, "-out", certificate_,
             "-days", "30", "-subj", "/CN=127.0.0.1", "-addext",
             "subjectAltName=IP:127.0.0.1,DNS:localhost"},
            log);
    }
    if (kind_ == Kind::Apache && options_.authentication != Authentication::None) {
        // The password files Apache's htpasswd and htdigest would write, made with openssl so
        // that nothing else needs installing.
        passwordFile_ = directory_ + "/passwords";
        std::string entry;
        if (options_.authentication == Authentication::Basic) {
            entry = options_.user + ":" +
                    run({findInPath("openssl"), "passwd", "-apr1", options_.password}, log);
        } else {
            const std::string plain = directory_ + "/digest-input";
            writeWhole(plain, options_.user + ":" + kRealm + ":" + options_.password);
            const std::string digest =
                run({findInPath("openssl"), "dgst", "-md5", "-r", plain}, log);
            fs::remove(plain);
            entry = options_.user + ":" + kRealm + ":" + digest.substr(0, digest.find(' ')) + "\n";
        }
        writeWhole(passwordFile_, entry);
    }
    if (kind_ == Kind::Rclone) {
        writeWhole(directory_ + "/rclone.conf", "");
    }
}

WebDAVServer::~WebDAVServer() {
    stop();
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

std::string WebDAVServer::log() const {
    return readFile(directory_ + "/server.log");
}

void WebDAVServer::prepare() {
    if (kind_ == Kind::Apache) {
        writeApacheConfiguration();
        if (::geteuid() == 0) {
            const passwd* user = ::getpwnam(kUnprivilegedUser);
            if (user != nullptr) {
                handOver(directory_, user->pw_uid, user->pw_gid);
                if (options_.dataDirectory.rfind(directory_ + "/", 0) != 0) {
                    handOver(options_.dataDirectory, user->pw_uid, user->pw_gid);
                }
            }
        }
    }
}

void WebDAVServer::writeApacheConfiguration() const {
    const std::string modules = kApacheModules;
    std::ostringstream c;
    auto load = [&](const char* name) {
        c << "LoadModule " << name << "_module " << modules << "/mod_" << name << ".so\n";
    };
    c << "ServerRoot \"" << directory_ << "\"\n"
      << "ServerName 127.0.0.1\n"
      << "Listen 127.0.0.1:" << port_ << "\n"
      << "PidFile \"" << directory_ << "/httpd.pid\"\n"
      << "DefaultRuntimeDir \"" << directory_ << "\"\n"
      << "ErrorLog \"" << directory_ << "/server.log\"\n"
      << "LogLevel warn\n";
    if (::geteuid() == 0) {
        c << "User " << kUnprivilegedUser << "\nGroup " << kUnprivilegedGroup << "\n";
    }
    c << "LoadModule mpm_event_module " << modules << "/mod_mpm_event.so\n";
    for (const char* name : {"authn_core", "authz_core", "mime", "dav", "dav_fs"}) {
        load(name);
    }
    if (options_.authentication != Authentication::None) {
        load("authn_file");
        load("authz_user");
        load(options_.authentication == Authentication::Basic ? "auth_basic" : "auth_digest");
    }
    if (options_.tls) {
        load("socache_shmcb");
        load("ssl");
    }
    // A small server: one process, enough threads for a test's parallel transfers.
    c << "StartServers 1\nServerLimit 2\nThreadsPerChild 16\nMinSpareThreads 4\n"
      << "MaxSpareThreads 32\nMaxRequestWorkers 32\n";
    if (::access("/etc/mime.types", R_OK) == 0) {
        c << "TypesConfig /etc/mime.types\n";
    }
    c << "DAVLockDB \"" << directory_ << "/DAVLock\"\n"
      << "DocumentRoot \"" << options_.dataDirectory << "\"\n";
    if (options_.tls) {
        c << "SSLEngine on\n"
          << "SSLCertificateFile \"" << certificate_ << "\"\n"
          << "SSLCertificateKeyFile \"" << key_ << "\"\n"
          << "SSLSessionCache \"shmcb:" << directory_ << "/ssl-cache(512000)\"\n";
    }
    c << "<Directory \"" << options_.dataDirectory << "\">\n"
      << "    Dav On\n    Options None\n    AllowOverride None\n";
    switch (options_.authentication) {
        case Authentication::None:
            c << "    Require all granted\n";
            break;
        case Authentication::Basic:
        case Authentication::Digest: {
            const bool basic = options_.authentication == Authentication::Basic;
            c << "    AuthType " << (basic ? "Basic" : "Digest") << "\n"
              << "    AuthName \"" << kRealm << "\"\n"
              << "    " << (basic ? "AuthBasicProvider" : "AuthDigestProvider") << " file\n"
              << "    AuthUserFile \"" << passwordFile_ << "\"\n"
              << "    Require valid-user\n";
            break;
        }
    }
    c << "</Directory>\n" << options_.apacheDirectives << "\n";
    writeWhole(directory_ + "/httpd.conf", c.str());
}

std::vector<std::string> WebDAVServer::commandLine() const {
    if (kind_ == Kind::Apache) {
        return {kApache, "-f", directory_ + "/httpd.conf", "-DFOREGROUND"};
    }
    std::vector<std::string> argv = {findInPath("rclone"), "serve", "webdav",
                                     options_.dataDirectory};
    argv.insert(argv.end(),
                {"--addr", "127.0.0.1:" + std::to_string(port_), "--config",
                 directory_ + "/rclone.conf", "--cache-dir", directory_ + "/rclone-cache"});
    if (options_.authentication == Authentication::Basic) {
        argv.insert(argv.end(), {"--user", options_.user, "--pass", options_.password});
    }
    if (options_.tls) {
        argv.insert(argv.end(), {"--cert", certificate_, "--key", key_});
    }
    argv.insert(argv.end(), options_.rcloneArguments.begin(), options_.rcloneArguments.end());
    return argv;
}

void WebDAVServer::launch() {
    pid_ = spawn(commandLine(), directory_ + "/server.log");
}

bool WebDAVServer::waitUntilAnswering(std::string* why) {
    const auto deadline = Clock::now() + options_.startTimeout;
    while (true) {
        if (hasExited(pid_)) {
            signalAndReap(SIGKILL, 0ms);
            *why = "it exited";
            return false;
        }
        if (optionsStatus(url_, certificate_) != 0) {
            return true;
        }
        if (Clock::now() > deadline) {
            signalAndReap(SIGKILL, 0ms);
            *why = "no answer to OPTIONS " + url_ + " within " +
                   std::to_string(options_.startTimeout.count()) + " ms";
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
}

void WebDAVServer::signalAndReap(int signal, std::chrono::milliseconds grace) {
    if (pid_ <= 0) {
        return;
    }
    ::kill(-pid_, signal);
    const auto deadline = Clock::now() + grace;
    while (!hasExited(pid_)) {
        if (Clock::now() >= deadline) {
            ::kill(-pid_, SIGKILL);
            siginfo_t info{};
            ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
            break;
        }
        std::this_thread::sleep_for(5ms);
    }
    // The group leader is a zombie until reaped, so its group id still names this server: kill
    // any worker that outlived it before letting the id go.
    ::kill(-pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
}

void WebDAVServer::stop() {
    signalAndReap(SIGTERM, 10s);
}

void WebDAVServer::kill() {
    signalAndReap(SIGKILL, 0ms);
}

void WebDAVServer::restart() {
    stop();
    // The port must stay the same; a moment after a kill, it may not be free yet.
    for (int attempt = 1;; ++attempt) {
        prepare();
        const auto logged = log().size();
        launch();
        std::string why;
        if (waitUntilAnswering(&why)) {
            return;
        }
        if (log().find("already in use", logged) == std::string::npos || attempt == 20) {
            throw std::runtime_error("the WebDAV server did not restart: " + why + "\n" +
                                     lastLines(log(), 30));
        }
        std::this_thread::sleep_for(250ms);
    }
}

// The proxy.

FaultProxy::Fault FaultProxy::Fault::respond(int status, std::string headers, std::string body) {
    return {Action::Respond, status, std::move(headers), std::move(body), 0, false};
}

FaultProxy::Fault FaultProxy::Fault::dropResponseAfter(std::uint64_t bytes) {
    return {Action::Drop, 0, {}, {}, bytes, false};
}

FaultProxy::Fault FaultProxy::Fault::stallResponseAfter(std::uint64_t bytes) {
    return {Action::Stall, 0, {}, {}, bytes, false};
}

FaultProxy::Fault FaultProxy::Fault::dropRequestAfter(std::uint64_t bytes) {
    return {Action::Drop, 0, {}, {}, bytes, true};
}

FaultProxy::Fault FaultProxy::Fault::stallRequestAfter(std::uint64_t bytes) {
    return {Action::Stall, 0, {}, {}, bytes, true};
}

/// One client connection and its connection to the server, pumped by one thread. The request
/// stream is parsed just enough to find where each request's head and body end; the response
/// stream only while a response fault waits for its byte count.
struct FaultProxy::Connection {
    enum class RequestState { Head, Body, ChunkLine, ChunkData, Trailer };

    Connection(FaultProxy& proxy, int client, int upstream)
        : proxy(proxy), client(client), upstream(upstream) {}
    ~Connection() {
        ::close(client);
        ::close(upstream);
    }

    void run() {
        while (true) {
            // A socket not to be read is left out (-1): a peer's reset would otherwise wake the
            // poll again and again.
            const bool held = stalled;
            pollfd fds[3] = {{proxy.stopEvent_, POLLIN, 0},
                             {held || clientDone ? -1 : client, POLLIN, 0},
                             {held ? -1 : upstream, POLLIN, 0}};
            if (::poll(fds, 3, held ? 20 : -1) < 0 && errno != EINTR) {
                return;
            }
            if (fds[0].revents != 0) {
                return;
            }
            if (held) {
                if (proxy.releases_.load() != stallGeneration) {
                    stalled = false;
                    proxy.noteStalled(-1);
                    if (!handleClient() || !handleUpstream()) {
                        return;
                    }
                    if (answered) {
                        linger();
                        return;
                    }
                }
                continue;
            }
            if (fds[1].revents != 0) {
                const ssize_t got = ::recv(client, buffer, sizeof buffer, 0);
                if (got <= 0) {
                    // The client will send no more: let the server know, and still forward
                    // what it answers.
                    clientDone = true;
                    ::shutdown(upstream, SHUT_WR);
                } else {
                    fromClient.append(buffer, static_cast<std::size_t>(got));
                    if (!handleClient()) {
                        return;
                    }
                    if (answered) {
                        linger();
                        return;
                    }
                }
            }
            if (fds[2].revents != 0) {
                const ssize_t got = ::recv(upstream, buffer, sizeof buffer, 0);
                if (got <= 0) {
                    return;
                }
                fromUpstream.append(buffer, static_cast<std::size_t>(got));
                if (!handleUpstream()) {
                    return;
                }
            }
        }
    }

    /// Forwards what the client sent, request by request. False when the connection must close.
    bool handleClient() {
        while (!fromClient.empty() && !stalled && !answered) {
            if (state == RequestState::Head) {
                const std::size_t searchFrom = head.size() > 3 ? head.size() - 3 : 0;
                head += fromClient;
                const auto end = head.find("\r\n\r\n", searchFrom);
                if (end == std::string::npos) {
                    fromClient.clear();
                    if (head.size() > (1 << 20)) {
                        return false;
                    }
                    continue;
                }
                fromClient = head.substr(end + 4);
                head.resize(end + 4);
                if (!startRequest()) {
                    return false;
                }
                continue;
            }
            std::size_t take = fromClient.size();
            if (state == RequestState::Body || state == RequestState::ChunkData) {
                take = static_cast<std::size_t>(std::min<std::uint64_t>(take, remaining));
            } else {
                const auto newline = fromClient.find('\n');
                take = newline == std::string::npos ? take : newline + 1;
            }
            bool trigger = false;
            if (requestFault && requestFault->afterBytes - requestCount <= take) {
                take = static_cast<std::size_t>(requestFault->afterBytes - requestCount);
                trigger = true;
            }
            if (!sendAll(upstream, fromClient.data(), take)) {
                return false;
            }
            requestCount += take;
            advance(std::string_view(fromClient).substr(0, take));
            fromClient.erase(0, take);
            if (trigger && !fire(requestFault)) {
                return false;
            }
            if (state == RequestState::Head) {
                requestFault.reset();  // its byte count lies beyond the body's end
            }
        }
        return true;
    }

    /// Moves the request body's framing past `bytes`, which were just forwarded.
    void advance(std::string_view bytes) {
        switch (state) {
            case RequestState::Head:
                break;
            case RequestState::Body:
            case RequestState::ChunkData:
                remaining -= bytes.size();
                if (remaining == 0) {
                    state =
                        state == RequestState::Body ? RequestState::Head : RequestState::ChunkLine;
                }
                break;
            case RequestState::ChunkLine:
            case RequestState::Trailer:
                line += bytes;
                if (line.empty() || line.back() != '\n') {
                    break;
                }
                if (state == RequestState::ChunkLine) {
                    remaining = std::strtoull(line.c_str(), nullptr, 16);
                    state = remaining == 0 ? RequestState::Trailer : RequestState::ChunkData;
                    remaining += remaining == 0 ? 0 : 2;  // the chunk's closing CRLF
                } else if (line == "\r\n" || line == "\n") {
                    state = RequestState::Head;
                }
                line.clear();
                break;
        }
    }

    /// A request's head has arrived: records it, applies the fault waiting for it, forwards it.
    bool startRequest() {
        const std::string method = head.substr(0, head.find(' '));
        const auto targetStart = method.size() + 1;
        const std::string target =
            head.substr(targetStart, head.find_first_of(" \r", targetStart) - targetStart);
        std::uint64_t contentLength = 0;
        bool chunked = false;
        std::istringstream lines(head);
        for (std::string header; std::getline(lines, header);) {
            const auto colon = header.find(':');
            if (colon == std::string::npos) {
                continue;
            }
            const std::string_view name(header.data(), colon);
            std::string value = header.substr(colon + 1);
            if (equalsIgnoringCase(name, "Content-Length")) {
                contentLength = std::strtoull(value.c_str(), nullptr, 10);
            } else if (equalsIgnoringCase(name, "Transfer-Encoding")) {
                std::transform(value.begin(), value.end(), value.begin(), ::tolower);
                chunked = value.find("chunked") != std::string::npos;
            }
        }
        {
            std::lock_guard lock(proxy.mutex_);
            proxy.requests_.push_back({method, target, head.substr(0, head.size() - 4)});
        }
        auto fault = proxy.takeFault(method, target);
        responseFault.reset();
        requestFault.reset();
        if (fault && fault->action == Fault::Action::Respond) {
            const std::string answer =
                "HTTP/1.1 " + std::to_string(fault->status) + " " + reasonPhrase(fault->status) +
                "\r\nContent-Length: " + std::to_string(fault->body.size()) +
                "\r\nConnection: close\r\n" + fault->headers + "\r\n" + fault->body;
            answered = true;
            return sendAll(client, answer.data(), answer.size());
        }
        if (!sendAll(upstream, head.data(), head.size())) {
            return false;
        }
        head.clear();
        state = chunked             ? RequestState::ChunkLine
                : contentLength > 0 ? RequestState::Body
                                    : RequestState::Head;
        remaining = chunked ? 0 : contentLength;
        if (fault && fault->inRequest) {
            requestFault = fault;
            requestCount = 0;
            if (fault->afterBytes == 0) {
                return fire(requestFault);
            }
            if (state == RequestState::Head) {
                requestFault.reset();
            }
        } else if (fault) {
            responseFault = fault;
            responseCount = 0;
            responseInBody = false;
            responseHead.clear();
        }
        return true;
    }

    /// Forwards what the server sent; counts the body of a response a fault waits for.
    bool handleUpstream() {
        while (!fromUpstream.empty() && !stalled) {
            if (!responseFault) {
                const bool sent = sendAll(client, fromUpstream.data(), fromUpstream.size());
                fromUpstream.clear();
                return sent;
            }
            if (!responseInBody) {
                const std::size_t searchFrom =
                    responseHead.size() > 3 ? responseHead.size() - 3 : 0;
                const std::size_t before = responseHead.size();
                responseHead += fromUpstream;
                const auto end = responseHead.find("\r\n\r\n", searchFrom);
                const std::size_t take =
                    end == std::string::npos ? fromUpstream.size() : end + 4 - before;
                if (!sendAll(client, fromUpstream.data(), take)) {
                    return false;
                }
                fromUpstream.erase(0, take);
                if (end == std::string::npos) {
                    continue;
                }
                // An interim answer (100 Continue) is followed by the real one.
                const bool interim = responseHead.compare(9, 1, "1") == 0;
                responseHead.clear();
                if (!interim) {
                    responseInBody = true;
                    if (responseFault->afterBytes == 0 && !fire(responseFault)) {
                        return false;
                    }
                }
                continue;
            }
            const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(
                fromUpstream.size(), responseFault->afterBytes - responseCount));
            if (!sendAll(client, fromUpstream.data(), take)) {
                return false;
            }
            fromUpstream.erase(0, take);
            responseCount += take;
            if (responseCount == responseFault->afterBytes && !fire(responseFault)) {
                return false;
            }
        }
        return true;
    }

    /// The fault's byte count is reached. False when the connection must close.
    bool fire(std::optional<Fault>& fault) {
        const bool drop = fault->action == Fault::Action::Drop;
        fault.reset();
        if (drop) {
            return false;
        }
        stallGeneration = proxy.releases_.load();
        stalled = true;
        proxy.noteStalled(+1);
        return true;
    }

    /// After answering in the server's place: read and drop what the client still sends (a
    /// body), so that closing does not reset the connection before the client has read the
    /// answer.
    void linger() {
        ::shutdown(client, SHUT_WR);
        const auto deadline = Clock::now() + 2s;
        while (Clock::now() < deadline) {
            pollfd fds[2] = {{proxy.stopEvent_, POLLIN, 0}, {client, POLLIN, 0}};
            if (::poll(fds, 2, 100) < 0 && errno != EINTR) {
                return;
            }
            if (fds[0].revents != 0 ||
                (fds[1].revents != 0 && ::recv(client, buffer, sizeof buffer, 0) <= 0)) {
                return;
            }
        }
    }

    FaultProxy& proxy;
    int client;
    int upstream;
    std::thread thread;
    std::atomic<bool> done{false};

    char buffer[64 * 1024];
    std::string fromClient;
    std::string fromUpstream;
    bool clientDone = false;
    bool answered = false;
    bool stalled = false;
    std::uint64_t stallGeneration = 0;

    RequestState state = RequestState::Head;
    std::string head;
    std::string line;
    std::uint64_t remaining = 0;
    std::optional<Fault> requestFault;
    std::uint64_t requestCount = 0;

    std::optional<Fault> responseFault;
    std::string responseHead;
    bool responseInBody = false;
    std::uint64_t responseCount = 0;
};

FaultProxy::FaultProxy(std::uint16_t port) : upstreamPort_(port) {
    stopEvent_ = ::eventfd(0, EFD_CLOEXEC);
    if (stopEvent_ < 0) {
        throw std::system_error(errno, std::generic_category(), "starting the fault proxy");
    }
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    try {
        port_ = bindLoopback(listener_, true, "starting the fault proxy");
    } catch (...) {
        ::close(stopEvent_);
        throw;
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
}

FaultProxy::~FaultProxy() {
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(stopEvent_, &one, sizeof one);
    acceptor_.join();
    for (auto& connection : connections_) {
        connection->thread.join();
    }
    connections_.clear();
    ::close(listener_);
    ::close(stopEvent_);
}

std::string FaultProxy::url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/";
}

void FaultProxy::acceptLoop() {
    while (true) {
        pollfd fds[2] = {{stopEvent_, POLLIN, 0}, {listener_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if (fds[1].revents == 0) {
            continue;
        }
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        // A server that is down shows as a connection closed before any answer.
        const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(upstreamPort_);
        if (upstream < 0 ||
            ::connect(upstream, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(upstream);
            ::close(client);
            continue;
        }
        const int one = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        ::setsockopt(upstream, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

        std::lock_guard lock(mutex_);
        for (auto it = connections_.begin(); it != connections_.end();) {
            if ((*it)->done) {
                (*it)->thread.join();
                it = connections_.erase(it);
            } else {
                ++it;
            }
        }
        auto& connection =
            *connections_.emplace_back(std::make_unique<Connection>(*this, client, upstream));
        connection.thread = std::thread([this, &connection] {
            connection.run();
            if (connection.stalled) {
                noteStalled(-1);
            }
            ::shutdown(connection.client, SHUT_RDWR);
            ::shutdown(connection.upstream, SHUT_RDWR);
            connection.done = true;
        });
    }
}

std::optional<FaultProxy::Fault> FaultProxy::takeFault(const std::string& method,
                                                       const std::string& target) {
    const std::string path = target.substr(0, target.find('?'));
    std::lock_guard lock(mutex_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if ((it->match.method.empty() || it->match.method == method) &&
            (it->match.path.empty() || it->match.path == path ||
             (it->match.path.ends_with('*') &&
              path.starts_with(
                  std::string_view(it->match.path).substr(0, it->match.path.size() - 1))))) {
            Fault fault = std::move(it->fault);
            faults_.erase(it);
            return fault;
        }
    }
    return std::nullopt;
}

void FaultProxy::noteStalled(int change) {
    std::lock_guard lock(mutex_);
    stalled_ = static_cast<std::size_t>(static_cast<long>(stalled_) + change);
    stalledChanged_.notify_all();
}

void FaultProxy::inject(Match match, Fault fault) {
    std::lock_guard lock(mutex_);
    faults_.push_back({std::move(match), std::move(fault)});
}

std::size_t FaultProxy::pendingFaults() const {
    std::lock_guard lock(mutex_);
    return faults_.size();
}

void FaultProxy::clearFaults() {
    std::lock_guard lock(mutex_);
    faults_.clear();
}

bool FaultProxy::waitUntilStalled(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return stalledChanged_.wait_for(lock, timeout, [this] { return stalled_ > 0; });
}

void FaultProxy::releaseStalls() {
    ++releases_;
}

std::vector<FaultProxy::Request> FaultProxy::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

}  // namespace qn::test
