// The WebDAV test servers: each kind answers the methods a sync client uses, with each kind of
// authentication and over TLS, and the fault proxy in front of it answers and cuts only the
// requests it is told to. (The store's fault tests use the rest of the proxy.)

#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>
#include <string>

#include "platform/drive/DavClient.h"
#include "support/WebDAVServer.h"

namespace qn::test {
namespace {

using Kind = WebDAVServer::Kind;
using Authentication = WebDAVServer::Authentication;

// Sends one request; the status, or 0 when no answer came. `body` gets the answer's body.
int send(drive::DavClient& client, const std::string& method, const std::string& path,
         std::vector<std::string> headers = {}, std::string content = {},
         std::string* body = nullptr) {
    drive::DavClient::Request request;
    request.method = method;
    request.path = path;
    request.headers = std::move(headers);
    request.headers.push_back("Content-Type: text/plain");
    request.body = std::move(content);
    request.repeatable = false;
    const auto response = client.perform(request, nullptr, nullptr);
    if (body != nullptr) {
        *body = response ? response->body : std::string();
    }
    return response ? response->status : 0;
}

drive::DavClient::Options clientOf(const WebDAVServer& server, const std::string& url,
                                   bool credentials) {
    drive::DavClient::Options options;
    options.url = url;
    options.certificateAuthority = server.certificatePath();
    options.retries = 0;
    if (credentials && server.options().authentication != Authentication::None) {
        options.user = server.options().user;
        options.password = server.options().password;
    }
    return options;
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
    EXPECT_EQ(server->url().rfind(options.tls ? "https://127.0.0.1:" : "http://127.0.0.1:", 0), 0u);
    if (options.authentication != Authentication::None) {
        drive::DavClient stranger(clientOf(*server, server->url(), false));
        EXPECT_EQ(send(stranger, "PROPFIND", "", {"Depth: 0"}), 401);
    }
    drive::DavClient client(clientOf(*server, server->url(), true));
    std::string body;
    EXPECT_EQ(send(client, "MKCOL", "folder"), 201);
    EXPECT_EQ(send(client, "PUT", "folder/a.txt", {}, "0123456789"), 201);
    EXPECT_EQ(send(client, "GET", "folder/a.txt", {"Range: bytes=4-"}, {}, &body), 206);
    EXPECT_EQ(body, "456789");
    EXPECT_EQ(send(client, "PROPFIND", "folder", {"Depth: 1"}, {}, &body), 207);
    EXPECT_NE(body.find("folder/a.txt</"), std::string::npos) << body;
    EXPECT_EQ(
        send(client, "MOVE", "folder/a.txt", {"Destination: " + client.urlOf("folder/b.txt")}),
        201);
    EXPECT_EQ(send(client, "GET", "folder/b.txt", {}, {}, &body), 200);
    EXPECT_EQ(body, "0123456789");
    EXPECT_EQ(send(client, "DELETE", "folder"), 204);
    EXPECT_FALSE(std::filesystem::exists(server->dataDirectory() + "/folder"));
}

INSTANTIATE_TEST_SUITE_P(
    Servers, WebDAVServerTest,
    ::testing::Values(Setup{Kind::Apache, Authentication::None, false, "Apache"},
                      Setup{Kind::Apache, Authentication::Basic, false, "ApacheBasic"},
                      Setup{Kind::Apache, Authentication::Digest, true, "ApacheDigestTLS"},
                      Setup{Kind::Rclone, Authentication::Basic, false, "RcloneBasic"},
                      Setup{Kind::Rclone, Authentication::None, true, "RcloneTLS"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(WebDAVServerTest, RcloneHasNoDigestAuthentication) {
    WebDAVServer::Options options;
    options.authentication = Authentication::Digest;
    EXPECT_TRUE(WebDAVServer::unavailable(Kind::Rclone, options));
}

TEST(FaultProxyTest, DisturbsOnlyTheRequestsItIsToldTo) {
    if (auto why = WebDAVServer::unavailable(Kind::Apache)) {
        GTEST_SKIP() << *why;
    }
    const auto server = WebDAVServer::start(Kind::Apache);
    FaultProxy proxy(server->port());
    drive::DavClient client(clientOf(*server, proxy.url(), true));
    proxy.inject({"PUT", "/full/*"}, FaultProxy::Fault::respond(507));
    proxy.inject({"PUT", "/cut.txt"}, FaultProxy::Fault::dropRequestAfter(5000));

    // A GET and a PUT elsewhere pass; the faults wait for their method and path.
    EXPECT_EQ(send(client, "GET", "full/a.txt"), 404);
    EXPECT_EQ(send(client, "PUT", "other.txt", {}, "passes"), 201);
    EXPECT_EQ(send(client, "PUT", "full/a.txt", {}, "refused"), 507);
    EXPECT_EQ(send(client, "PUT", "cut.txt", {}, std::string(100000, 'x')), 0);
    EXPECT_FALSE(std::filesystem::exists(server->dataDirectory() + "/cut.txt"))
        << "Apache keeps no partial file";
    EXPECT_EQ(proxy.pendingFaults(), 0u);
    const auto seen = proxy.requests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[1].method, "PUT");
    EXPECT_EQ(seen[1].target, "/other.txt");
}

}  // namespace
}  // namespace qn::test
