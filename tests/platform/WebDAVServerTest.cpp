// The WebDAV test servers: each kind answers the methods a sync client uses, with each kind of
// authentication and over TLS, keeps its data across a kill and a restart, and the fault proxy
// in front of it answers, cuts and holds transfers as told.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"
#include "support/WebDAVServer.h"

namespace qn::test {
namespace {

using Kind = WebDAVServer::Kind;
using Authentication = WebDAVServer::Authentication;
using namespace std::chrono_literals;

struct Response {
    CURLcode result = CURLE_OK;
    long status = 0;
    std::string headers;
    std::string body;
};

/// A libcurl client of one server (or of a proxy in front of it), one connection per request
/// unless `keepAlive`.
class Client {
public:
    Client(const WebDAVServer& server, std::string base = {})
        : server_(server), base_(base.empty() ? server.url() : std::move(base)) {}

    std::string url(const std::string& path) const { return base_ + path; }

    /// Sends one request; `body` goes with a Content-Length, or in chunks when `chunked`.
    Response operator()(const std::string& method, const std::string& path,
                        const std::vector<std::string>& headers = {}, const std::string& body = {},
                        bool chunked = false) {
        CURL* curl = handle_ ? handle_ : ::curl_easy_init();
        ::curl_easy_reset(curl);
        Response response;
        const std::string target = url(path);
        ::curl_easy_setopt(curl, CURLOPT_URL, target.c_str());
        ::curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        ::curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 10000L);
        if (method != "GET") {
            ::curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        curl_slist* list = nullptr;
        for (const auto& header : headers) {
            list = ::curl_slist_append(list, header.c_str());
        }
        Source source{body, 0};
        if (chunked) {
            list = ::curl_slist_append(list, "Transfer-Encoding: chunked");
            ::curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
            ::curl_easy_setopt(curl, CURLOPT_READDATA, &source);
            ::curl_easy_setopt(curl, CURLOPT_READFUNCTION, &Client::readInPieces);
        } else if (!body.empty() || method == "PUT") {
            list = ::curl_slist_append(list, "Content-Type: application/octet-stream");
            ::curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
            ::curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                               static_cast<curl_off_t>(body.size()));
        }
        ::curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
        ::curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Client::append);
        ::curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
        ::curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &Client::append);
        ::curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response.headers);
        if (!server_.certificatePath().empty()) {
            ::curl_easy_setopt(curl, CURLOPT_CAINFO, server_.certificatePath().c_str());
        }
        const auto& options = server_.options();
        const std::string credentials = options.user + ":" + options.password;
        if (authenticate && options.authentication != Authentication::None) {
            ::curl_easy_setopt(
                curl, CURLOPT_HTTPAUTH,
                options.authentication == Authentication::Basic ? CURLAUTH_BASIC : CURLAUTH_DIGEST);
            ::curl_easy_setopt(curl, CURLOPT_USERPWD, credentials.c_str());
        }
        response.result = ::curl_easy_perform(curl);
        ::curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
        ::curl_slist_free_all(list);
        if (curl != handle_) {
            ::curl_easy_cleanup(curl);
        }
        return response;
    }

    /// Sends the following requests on one connection, as a client with keep-alive does.
    void keepAlive() { handle_ = ::curl_easy_init(); }
    /// Whether requests carry the server's credentials.
    bool authenticate = true;
    ~Client() {
        if (handle_ != nullptr) {
            ::curl_easy_cleanup(handle_);
        }
    }

private:
    static std::size_t append(char* data, std::size_t size, std::size_t count, void* into) {
        static_cast<std::string*>(into)->append(data, size * count);
        return size * count;
    }
    struct Source {
        const std::string& body;
        std::size_t offset;
    };
    // Hands the body over 1000 bytes at a time, so that it goes as several chunks.
    static std::size_t readInPieces(char* into, std::size_t size, std::size_t count, void* from) {
        auto& source = *static_cast<Source*>(from);
        const std::size_t length =
            std::min({size * count, source.body.size() - source.offset, std::size_t{1000}});
        std::memcpy(into, source.body.data() + source.offset, length);
        source.offset += length;
        return length;
    }

    const WebDAVServer& server_;
    std::string base_;
    CURL* handle_ = nullptr;
};

std::string header(const Response& response, const std::string& name) {
    std::string lower = response.headers;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    std::string key = name;
    std::transform(key.begin(), key.end(), key.begin(), ::tolower);
    const auto at = lower.find("\n" + key + ":");
    if (at == std::string::npos) {
        return {};
    }
    const auto start = response.headers.find_first_not_of(' ', at + key.size() + 2);
    return response.headers.substr(start, response.headers.find('\r', start) - start);
}

std::string payload(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 26) % 26);
    }
    return text;
}

struct Setup {
    Kind kind;
    Authentication authentication;
    bool tls;
    const char* name;
};

void PrintTo(const Setup& setup, std::ostream* stream) {
    *stream << setup.name;
}

class WebDAVServerTest : public ::testing::TestWithParam<Setup> {};

TEST_P(WebDAVServerTest, ServesWhatASyncClientUses) {
    WebDAVServer::Options options;
    options.authentication = GetParam().authentication;
    options.tls = GetParam().tls;
    if (auto why = WebDAVServer::unavailable(GetParam().kind, options)) {
        GTEST_SKIP() << *why;
    }
    const auto server = WebDAVServer::start(GetParam().kind, options);
    Client client(*server);
    EXPECT_EQ(server->url().rfind(options.tls ? "https://127.0.0.1:" : "http://127.0.0.1:", 0), 0u);

    if (options.authentication != Authentication::None) {
        client.authenticate = false;
        EXPECT_EQ(client("PROPFIND", "", {"Depth: 0"}).status, 401);
        client.authenticate = true;
    }
    EXPECT_EQ(client("MKCOL", "folder/").status, 201);
    const Response put = client("PUT", "folder/a.txt", {}, "0123456789");
    EXPECT_EQ(put.status, 201) << put.headers;
    EXPECT_EQ(readFile(server->dataDirectory() + "/folder/a.txt"), "0123456789");

    const Response ranged = client("GET", "folder/a.txt", {"Range: bytes=4-"});
    EXPECT_EQ(ranged.status, 206);
    EXPECT_EQ(ranged.body, "456789");
    EXPECT_EQ(header(ranged, "Content-Range"), "bytes 4-9/10");

    const Response listing = client("PROPFIND", "folder/", {"Depth: 1"});
    EXPECT_EQ(listing.status, 207);
    EXPECT_NE(listing.body.find("folder/a.txt</"), std::string::npos) << listing.body;

    EXPECT_EQ(client("MOVE", "folder/a.txt", {"Destination: " + client.url("folder/b.txt")}).status,
              201);
    EXPECT_EQ(client("GET", "folder/b.txt").body, "0123456789");
    EXPECT_EQ(client("GET", "folder/a.txt").status, 404);
    EXPECT_EQ(client("DELETE", "folder/").status, 204);
    EXPECT_EQ(client("GET", "folder/b.txt").status, 404);
}

INSTANTIATE_TEST_SUITE_P(
    Servers, WebDAVServerTest,
    ::testing::Values(Setup{Kind::Apache, Authentication::None, false, "Apache"},
                      Setup{Kind::Apache, Authentication::Basic, false, "ApacheBasic"},
                      Setup{Kind::Apache, Authentication::Digest, false, "ApacheDigest"},
                      Setup{Kind::Apache, Authentication::Basic, true, "ApacheTLS"},
                      Setup{Kind::Rclone, Authentication::None, false, "Rclone"},
                      Setup{Kind::Rclone, Authentication::Basic, false, "RcloneBasic"},
                      Setup{Kind::Rclone, Authentication::None, true, "RcloneTLS"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(WebDAVServerTest, RcloneHasNoDigestAuthentication) {
    WebDAVServer::Options options;
    options.authentication = Authentication::Digest;
    EXPECT_TRUE(WebDAVServer::unavailable(Kind::Rclone, options));
}

class FaultProxyTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto why = WebDAVServer::unavailable(Kind::Apache)) {
            GTEST_SKIP() << *why;
        }
        server = WebDAVServer::start(Kind::Apache);
        proxy = std::make_unique<FaultProxy>(server->port());
        client = std::make_unique<Client>(*server, proxy->url());
    }

    std::unique_ptr<WebDAVServer> server;
    std::unique_ptr<FaultProxy> proxy;
    std::unique_ptr<Client> client;
};

TEST_F(FaultProxyTest, AnswersInTheServersPlaceOnlyForTheMatchingRequest) {
    proxy->inject({"PUT", "/full.txt"}, FaultProxy::Fault::respond(507));
    proxy->inject({"PUT", ""}, FaultProxy::Fault::respond(412, "ETag: \"x\"\r\n"));

    // A GET and a PUT elsewhere pass: the first fault waits for its path, the second for a PUT.
    EXPECT_EQ((*client)("GET", "full.txt").status, 404);
    EXPECT_EQ((*client)("PUT", "full.txt", {}, payload(100000)).status, 507);
    EXPECT_FALSE(std::filesystem::exists(server->dataDirectory() + "/full.txt"));
    const Response refused = (*client)("PUT", "other.txt", {"If-Match: \"old\""}, "x");
    EXPECT_EQ(refused.status, 412);
    EXPECT_EQ(header(refused, "ETag"), "\"x\"");
    EXPECT_EQ(proxy->pendingFaults(), 0u);
    EXPECT_EQ((*client)("PUT", "full.txt", {}, "now").status, 201);

    const auto seen = proxy->requests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[2].method, "PUT");
    EXPECT_EQ(seen[2].target, "/other.txt");
    EXPECT_NE(seen[2].head.find("If-Match: \"old\""), std::string::npos);
}

TEST_F(FaultProxyTest, FollowsRequestsOnOneConnectionPastChunkedBodies) {
    client->keepAlive();
    const std::string body = payload(5000);
    proxy->inject({"GET", "/b.txt"}, FaultProxy::Fault::dropResponseAfter(10));
    EXPECT_EQ((*client)("PUT", "a.txt", {}, body, true).status, 201);
    EXPECT_EQ((*client)("PUT", "b.txt", {}, body).status, 201);
    EXPECT_EQ((*client)("GET", "a.txt").body, body);
    const Response cut = (*client)("GET", "b.txt");
    EXPECT_EQ(cut.result, CURLE_PARTIAL_FILE);
    EXPECT_EQ(cut.body, body.substr(0, 10));
    EXPECT_EQ(proxy->requests().size(), 4u);
}

TEST_F(FaultProxyTest, CutsADownloadThatResumesWithARange) {
    const std::string body = payload(300000);
    ASSERT_EQ((*client)("PUT", "big.bin", {}, body).status, 201);

    proxy->inject({"GET", "/big.bin"}, FaultProxy::Fault::dropResponseAfter(123456));
    const Response cut = (*client)("GET", "big.bin");
    EXPECT_EQ(cut.result, CURLE_PARTIAL_FILE);
    ASSERT_EQ(cut.body.size(), 123456u);
    const Response rest = (*client)("GET", "big.bin", {"Range: bytes=123456-"});
    EXPECT_EQ(rest.status, 206);
    EXPECT_EQ(cut.body + rest.body, body);
}

TEST_F(FaultProxyTest, HoldsADownloadWhileTheServerIsKilledAndRestarted) {
    // Larger than what the sockets between the server and the client can hold, so that the kill
    // cuts it.
    const std::string body = payload(16 << 20);
    ASSERT_EQ((*client)("PUT", "big.bin", {}, body).status, 201);

    proxy->inject({"GET", "/big.bin"}, FaultProxy::Fault::stallResponseAfter(1000));
    auto download = std::async(std::launch::async, [&] { return (*client)("GET", "big.bin"); });
    ASSERT_TRUE(proxy->waitUntilStalled(5s));
    server->kill();
    proxy->releaseStalls();
    const Response cut = download.get();
    EXPECT_EQ(cut.result, CURLE_PARTIAL_FILE);
    EXPECT_GE(cut.body.size(), 1000u);
    EXPECT_LT(cut.body.size(), body.size());

    EXPECT_NE((*client)("GET", "big.bin").result, CURLE_OK);  // nobody behind the proxy
    server->restart();
    EXPECT_EQ((*client)("GET", "big.bin").body, body);
}

TEST_F(FaultProxyTest, CutsAnUploadInTheMiddleOfItsBody) {
    proxy->inject({"PUT", "/big.bin"}, FaultProxy::Fault::dropRequestAfter(50000));
    const Response cut = (*client)("PUT", "big.bin", {}, payload(200000));
    EXPECT_NE(cut.result, CURLE_OK);
    EXPECT_EQ(cut.status, 0);
    EXPECT_EQ((*client)("GET", "big.bin").status, 404);  // Apache keeps no partial file
}

TEST_F(FaultProxyTest, HoldsAnUploadUntilReleased) {
    proxy->inject({"PUT", "/held.bin"}, FaultProxy::Fault::stallRequestAfter(0));
    auto upload =
        std::async(std::launch::async, [&] { return (*client)("PUT", "held.bin", {}, "held"); });
    ASSERT_TRUE(proxy->waitUntilStalled(5s));
    EXPECT_EQ(upload.wait_for(100ms), std::future_status::timeout);
    proxy->releaseStalls();
    EXPECT_EQ(upload.get().status, 201);
}

}  // namespace
}  // namespace qn::test
