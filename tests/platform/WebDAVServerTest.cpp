// The WebDAV test servers in what no other test starts them with, and the fault proxy in front of
// one answering and cutting only the requests it is told to. (Apache without authentication, with
// Basic and with Digest over TLS, and rclone with Basic, are the client's, the store's and the
// tool's tests' servers; the store's fault tests use the rest of the proxy.)

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/drive/DavClient.h"
#include "support/TemporaryDirectory.h"
#include "support/WebDAVServer.h"

namespace qn::test {
namespace {

using Kind = WebDAVServer::Kind;
using Authentication = WebDAVServer::Authentication;

// Sends one request; the status, or 0 when no answer came.
int send(drive::DavClient& client, const std::string& method, const std::string& path,
         std::string content = {}) {
    drive::DavClient::Request request;
    request.method = method;
    request.path = path;
    request.headers = {"Content-Type: text/plain"};
    request.body = std::move(content);
    request.repeatable = false;
    const auto response = client.perform(request, nullptr, nullptr);
    return response ? response->status : 0;
}

TEST(WebDAVServerTest, RcloneServesOverTLSButHasNoDigestAuthentication) {
    WebDAVServer::Options options;
    options.authentication = Authentication::Digest;
    EXPECT_TRUE(WebDAVServer::unavailable(Kind::Rclone, options));
    options.authentication = Authentication::Basic;
    options.tls = true;
    if (auto why = WebDAVServer::unavailable(Kind::Rclone, options)) {
        GTEST_SKIP() << *why;
    }
    const auto server = WebDAVServer::start(Kind::Rclone, options);
    EXPECT_EQ(server->url().rfind("https://127.0.0.1:", 0), 0u);
    drive::DavClient::Options client;
    client.url = server->url();
    client.certificateAuthority = server->certificatePath();
    client.user = options.user;
    client.password = options.password;
    drive::DavClient secure(client);
    EXPECT_EQ(send(secure, "PUT", "a.txt", "over TLS"), 201);
    EXPECT_EQ(readFile(server->dataDirectory() + "/a.txt"), "over TLS");
}

TEST(FaultProxyTest, DisturbsOnlyTheRequestsItIsToldTo) {
    if (auto why = WebDAVServer::unavailable(Kind::Apache)) {
        GTEST_SKIP() << *why;
    }
    const auto server = WebDAVServer::start(Kind::Apache);
    FaultProxy proxy(server->port());
    drive::DavClient::Options options;
    options.url = proxy.url();
    options.retries = 0;
    drive::DavClient client(options);
    proxy.inject({"PUT", "/full/*"}, FaultProxy::Fault::respond(507));
    proxy.inject({"PUT", "/cut.txt"}, FaultProxy::Fault::dropRequestAfter(5000));

    // A GET and a PUT elsewhere pass; the faults wait for their method and path.
    EXPECT_EQ(send(client, "GET", "full/a.txt"), 404);
    EXPECT_EQ(send(client, "PUT", "other.txt", "passes"), 201);
    EXPECT_EQ(send(client, "PUT", "full/a.txt", "refused"), 507);
    EXPECT_EQ(send(client, "PUT", "cut.txt", std::string(100000, 'x')), 0);
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
