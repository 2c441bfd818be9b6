// What only the WebDAV store does: credentials and certificates checked with clear errors, the
// documents kept at their own paths on the server, and changes other WebDAV clients make there
// found and passed on as changes.

#include <gtest/gtest.h>

#include "platform/drive/DavClient.h"
#include "qn/WebDAVStore.h"
#include "support/TemporaryDirectory.h"
#include "support/TestStores.h"

namespace qn::test {
namespace {

using Kind = WebDAVServer::Kind;

std::string download(DriveStore& store, const std::string& path) {
    return downloadFrom(store, "alice", path);
}

bool upload(DriveStore& store, const std::string& path, std::string_view contents, Error* error) {
    return uploadTo(store, "alice", path, contents, DriveStore::Condition::any(), error)
        .has_value();
}

TEST(WebDAVStoreTest, CredentialsAndCertificatesAreCheckedWithClearErrors) {
    WebDAVServer::Options serverOptions;
    serverOptions.authentication = WebDAVServer::Authentication::Digest;
    serverOptions.tls = true;
    if (const auto why = WebDAVServer::unavailable(Kind::Apache, serverOptions)) {
        GTEST_SKIP() << *why;
    }
    const auto server = WebDAVServer::start(Kind::Apache, serverOptions);
    WebDAVStore::Options options;
    options.url = server->url() + "store";
    options.user = serverOptions.user;
    options.password = serverOptions.password;
    options.retries = 0;
    Error error;

    // A certificate nobody vouches for is refused, saying so.
    EXPECT_FALSE(WebDAVStore::create(options, &error));
    EXPECT_EQ(error.code(), DriveStoreErrorUnreachable);
    EXPECT_NE(error.localizedDescription().find("certificate cannot be trusted"), std::string::npos)
        << error.localizedDescription();
    options.allowUnverifiedCertificate = true;
    EXPECT_TRUE(WebDAVStore::create(options, &error)) << error.description();

    // Trusted through its authority; the wrong password is refused, saying so.
    options.allowUnverifiedCertificate = false;
    options.certificateAuthority = server->certificatePath();
    auto wrong = options;
    wrong.password = "queen of hearts";
    EXPECT_FALSE(WebDAVStore::open(wrong)->isReachable());
    EXPECT_FALSE(WebDAVStore::open(wrong)->addAccount("alice", &error));
    EXPECT_FALSE(WebDAVStore::open(wrong)->accounts(&error));
    EXPECT_EQ(error.code(), DriveStoreErrorUnreachable);
    EXPECT_NE(error.localizedDescription().find("refused the credentials of \"alice\""),
              std::string::npos)
        << error.localizedDescription();

    const auto store = WebDAVStore::open(options);
    ASSERT_TRUE(store->addAccount("alice", &error)) << error.description();
    ASSERT_TRUE(
        store->makeDirectory("alice", "C", DriveStore::Condition::any(), Date(1), "me", &error));
    ASSERT_TRUE(upload(*store, "C/a.txt", "over digest and TLS", &error)) << error.description();
    EXPECT_EQ(download(*store, "C/a.txt"), "over digest and TLS");
}

class WebDAVOtherClientsTest : public ::testing::TestWithParam<Kind> {};

TEST_P(WebDAVOtherClientsTest, WhatOtherClientsChangeIsFoundAndPassedOn) {
    WebDAVServer::Options serverOptions;
    serverOptions.rcloneArguments = {"--dir-cache-time", "0s"};
    if (const auto why = WebDAVServer::unavailable(GetParam(), serverOptions)) {
        GTEST_SKIP() << *why;
    }
    const auto server = WebDAVServer::start(GetParam(), serverOptions);
    WebDAVStore::Options options;
    options.url = server->url() + "store";
    options.walkInterval = std::chrono::seconds(0);
    Error error;
    ASSERT_TRUE(WebDAVStore::create(options, &error)) << error.description();
    const auto store = WebDAVStore::open(options);
    ASSERT_TRUE(store->addAccount("alice", &error)) << error.description();
    ASSERT_TRUE(
        store->makeDirectory("alice", "C", DriveStore::Condition::any(), Date(1), "me", &error));
    ASSERT_TRUE(upload(*store, "C/a.txt", "mine", &error));
    ASSERT_TRUE(upload(*store, "C/gone.txt", "soon gone", &error));
    const auto before = store->itemAtPath("alice", "C/a.txt", nullptr);
    const auto token = store->changesSince("alice", "", nullptr)->token;

    // The documents are at their own paths on the server, as its other clients see them.
    drive::DavClient::Options otherOptions;
    otherOptions.url = server->url() + "store/alice";
    drive::DavClient other(otherOptions);
    const auto perform = [&](std::string method, std::string path, std::string body = {}) {
        drive::DavClient::Request request;
        request.method = std::move(method);
        request.path = std::move(path);
        request.body = std::move(body);
        request.headers = {"Content-Type: text/plain"};
        const auto response = other.perform(request, nullptr, nullptr);
        return response ? response->status : 0;
    };
    EXPECT_EQ(perform("GET", "C/a.txt"), 200);
    for (const int status :
         {perform("PUT", "C/a.txt", "theirs, longer"), perform("MKCOL", "C/D"),
          perform("PUT", "C/D/new.txt", "new"), perform("DELETE", "C/gone.txt")}) {
        EXPECT_TRUE(status == 201 || status == 204) << status;
    }

    const auto changes = store->changesSince("alice", token, &error);
    ASSERT_TRUE(changes) << error.description();
    EXPECT_FALSE(changes->reset);
    std::vector<std::string> paths;
    for (const auto& item : changes->items) {
        paths.push_back(item.path);
        EXPECT_EQ(item.device, "WebDAV") << item.path;
    }
    EXPECT_EQ(paths, (std::vector<std::string>{"C/D", "C/D/new.txt", "C/a.txt"}));
    EXPECT_EQ(changes->removedPaths, std::vector<std::string>{"C/gone.txt"});
    EXPECT_EQ(download(*store, "C/a.txt"), "theirs, longer");
    EXPECT_EQ(store->itemAtPath("alice", "C/a.txt", nullptr)->size, 14u);
    EXPECT_FALSE(store->read("alice", "C/a.txt", before->revision, 0, 10, &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotFound);

    // A second walk finds nothing new; an edit made on the old revision is a conflict.
    EXPECT_TRUE(store->changesSince("alice", changes->token, nullptr)->items.empty());
    EXPECT_FALSE(uploadTo(*store, "alice", "C/a.txt", "",
                          DriveStore::Condition::atRevision(before->revision), &error));
    EXPECT_EQ(error.code(), DriveStoreErrorRevisionMismatch);
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDAVOtherClientsTest,
                         ::testing::Values(Kind::Apache, Kind::Rclone), [](const auto& info) {
                             return info.param == Kind::Apache ? "Apache" : "Rclone";
                         });

}  // namespace
}  // namespace qn::test
