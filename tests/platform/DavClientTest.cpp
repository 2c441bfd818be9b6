// The network store's HTTP line against real servers: credentials, bodies from and to files,
// progress, and retries when the server is busy or gone. (The store's tests check certificates.)

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "platform/drive/DavClient.h"
#include "platform/drive/DavLock.h"
#include "platform/drive/Multistatus.h"
#include "support/TemporaryDirectory.h"
#include "support/WebDAVServer.h"

namespace qn::test {
namespace {

using drive::DavClient;
using Kind = WebDAVServer::Kind;
using namespace std::chrono_literals;

std::unique_ptr<WebDAVServer> serverOrSkip(Kind kind, const WebDAVServer::Options& options) {
    if (WebDAVServer::unavailable(kind, options)) {
        return nullptr;
    }
    return WebDAVServer::start(kind, options);
}

DavClient::Options clientOf(const WebDAVServer& server) {
    DavClient::Options options;
    options.url = server.url();
    options.user = server.options().authentication == WebDAVServer::Authentication::None
                       ? ""
                       : server.options().user;
    options.password = server.options().password;
    options.certificateAuthority = server.certificatePath();
    options.firstBackOff = 10ms;
    return options;
}

DavClient::Request request(std::string method, std::string path,
                           std::vector<std::string> headers = {}) {
    DavClient::Request made;
    made.method = std::move(method);
    made.path = std::move(path);
    made.headers = std::move(headers);
    return made;
}

DavClient::Response perform(DavClient& client, const DavClient::Request& request) {
    DavClient::Failure failure{};
    std::string error;
    auto response = client.perform(request, &failure, &error);
    EXPECT_TRUE(response) << error;
    return response.value_or(DavClient::Response{});
}

TEST(DavClientTest, FilesGoUpAndComeDownWithProgressUnderEachAuthentication) {
    TemporaryDirectory directory;
    const std::string source = directory.path() + "/source";
    const std::string contents(3 << 20, 'x');
    std::ofstream(source) << "skip" << contents;
    for (const auto& [kind, authentication] :
         std::vector<std::pair<Kind, WebDAVServer::Authentication>>{
             {Kind::Apache, WebDAVServer::Authentication::Digest},
             {Kind::Rclone, WebDAVServer::Authentication::Basic}}) {
        WebDAVServer::Options options;
        options.authentication = authentication;
        // Over TLS a server may answer the credentials only after part of the body has gone.
        options.tls = kind == Kind::Rclone;
        const auto server = serverOrSkip(kind, options);
        if (server == nullptr) {
            GTEST_SKIP() << *WebDAVServer::unavailable(kind, options);
        }
        DavClient client(clientOf(*server));
        EXPECT_EQ(perform(client, request("MKCOL", "A folder")).status, 201);

        // The body comes from the file from its offset; the last progress call comes before the
        // last bytes leave, and saying stop there sends nothing complete.
        const int in = ::open(source.c_str(), O_RDONLY);
        std::vector<std::uint64_t> seen;
        DavClient::Request put = request("PUT", "A folder/caf\xc3\xa9 #1.bin");
        put.uploadFd = in;
        put.uploadOffset = 4;
        put.uploadSize = contents.size();
        put.progress = [&](std::uint64_t done, std::uint64_t total) {
            seen.push_back(done);
            return total == contents.size();
        };
        const int status = perform(client, put).status;
        EXPECT_TRUE(status == 201 || status == 204) << status;
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.back(), contents.size());
        // Never backwards, and never the same bytes twice: the body went once.
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());

        const std::string copy = directory.path() + "/copy";
        const int out = ::open(copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        DavClient::Request get = request("GET", "A folder/caf\xc3\xa9 #1.bin");
        get.downloadFd = out;
        std::uint64_t last = 0;
        get.progress = [&](std::uint64_t done, std::uint64_t) {
            last = done;
            return true;
        };
        EXPECT_EQ(perform(client, get).downloaded, contents.size());
        ::close(out);
        EXPECT_EQ(readFile(copy), contents);
        EXPECT_EQ(last, contents.size());

        const auto listing = perform(client, request("PROPFIND", "A folder", {"Depth: 1"}));
        std::string problem;
        const auto parsed = drive::parseMultistatus(listing.body, &problem);
        ASSERT_TRUE(parsed) << problem;
        ASSERT_EQ(parsed->resources.size(), 2u);
        EXPECT_TRUE(parsed->resources[1].path.ends_with("/A folder/caf\xc3\xa9 #1.bin"));
        EXPECT_EQ(parsed->resources[1].contentLength, contents.size());

        // Stopped before the end: the client says so, and the server kept nothing new.
        put.path = "stopped.bin";
        put.progress = [&](std::uint64_t done, std::uint64_t) { return done < (1 << 20); };
        DavClient::Failure failure{};
        EXPECT_FALSE(client.perform(put, &failure, nullptr));
        EXPECT_EQ(failure, DavClient::Failure::Cancelled);
        ::close(in);

        DavClient stranger([&] {
            auto options = clientOf(*server);
            options.password = "wrong";
            return options;
        }());
        EXPECT_EQ(perform(stranger, request("PROPFIND", "", {"Depth: 0"})).status, 401);
    }
}

TEST(DavClientTest, BusyOrGoneServersAreTriedAgainThenGivenUp) {
    const auto server = serverOrSkip(Kind::Apache, {});
    if (server == nullptr) {
        GTEST_SKIP() << *WebDAVServer::unavailable(Kind::Apache);
    }
    FaultProxy proxy(server->port());
    auto options = clientOf(*server);
    options.url = proxy.url();
    options.retries = 2;
    DavClient client(options);
    const DavClient::Request probe = request("PROPFIND", "", {"Depth: 0"});

    proxy.inject({"PROPFIND", ""}, FaultProxy::Fault::respond(503));
    EXPECT_EQ(perform(client, probe).status, 207);
    EXPECT_EQ(proxy.requests().size(), 2u);

    // What must not be sent twice is not: its answer is the caller's.
    proxy.inject({"MOVE", ""}, FaultProxy::Fault::respond(503));
    EXPECT_EQ(perform(client,
                      [] {
                          auto move = request("MOVE", "x");
                          move.repeatable = false;
                          return move;
                      }())
                  .status,
              503);

    server->kill();
    DavClient::Failure failure{};
    std::string error;
    EXPECT_FALSE(client.perform(probe, &failure, &error));
    EXPECT_EQ(failure, DavClient::Failure::Unreachable);
    EXPECT_NE(error.find("did not answer"), std::string::npos) << error;
    server->restart();
    EXPECT_EQ(perform(client, probe).status, 207);
}

TEST(DavClientTest, OneDeviceHoldsTheLockAndADeadOnesLockExpires) {
    for (const Kind kind : {Kind::Apache, Kind::Rclone}) {
        const auto server = serverOrSkip(kind, {});
        if (server == nullptr) {
            GTEST_SKIP() << *WebDAVServer::unavailable(kind);
        }
        DavClient laptop(clientOf(*server));
        DavClient desktop(clientOf(*server));
        std::string error;
        {
            auto held = drive::DavLock::acquire(laptop, "lock", 60s, 0ms, "laptop", &error);
            ASSERT_TRUE(held) << error;
            EXPECT_TRUE(held->token().starts_with("<")) << held->token();
            EXPECT_FALSE(drive::DavLock::acquire(desktop, "lock", 60s, 100ms, "desktop", &error));
            EXPECT_NE(error.find("locked by another device"), std::string::npos) << error;
        }
        // Let go of: the other device has it at once.
        auto second = drive::DavLock::acquire(desktop, "lock", 1s, 0ms, "desktop", &error);
        ASSERT_TRUE(second) << error;
        // Its holder dies: the lock goes with its time-out, and a waiting device gets it.
        second->abandon();
        EXPECT_TRUE(drive::DavLock::acquire(laptop, "lock", 60s, 5s, "laptop", &error))
            << (kind == Kind::Apache ? "Apache: " : "rclone: ") << error;
    }
}

}  // namespace
}  // namespace qn::test
