#include "DavLock.h"

#include <fmt/format.h>

#include <random>
#include <thread>
#include <utility>

namespace qn::drive {

std::optional<DavLock> DavLock::acquire(DavClient& client, const std::string& path,
                                        std::chrono::seconds timeout,
                                        std::chrono::milliseconds patience,
                                        const std::string& owner, std::string* error) {
    const auto give = [&](std::string why) -> std::optional<DavLock> {
        if (error != nullptr) {
            *error = std::move(why);
        }
        return std::nullopt;
    };
    DavClient::Request request;
    request.method = "LOCK";
    request.path = path;
    request.headers = {"Depth: 0", fmt::format("Timeout: Second-{}", timeout.count())};
    std::string escapedOwner;
    for (const char c : owner) {
        escapedOwner += c == '<'   ? std::string("&lt;")
                        : c == '&' ? std::string("&amp;")
                                   : std::string(1, c);
    }
    request.body =
        fmt::format(R"(<?xml version="1.0" encoding="utf-8"?>)"
                    R"(<D:lockinfo xmlns:D="DAV:"><D:lockscope><D:exclusive/></D:lockscope>)"
                    R"(<D:locktype><D:write/></D:locktype><D:owner>{}</D:owner></D:lockinfo>)",
                    escapedOwner);
    request.repeatable = false;  // a lost answer would leave a lock nobody knows the token of
    const auto end = std::chrono::steady_clock::now() + patience;
    std::mt19937 random(std::random_device{}());
    std::chrono::milliseconds pause(20);
    for (;;) {
        DavClient::Failure failure{};
        std::string why;
        const auto response = client.perform(request, &failure, &why);
        if (!response) {
            return give(why);
        }
        if (response->status == 200 || response->status == 201) {
            const auto token = response->headers.find("lock-token");
            if (token == response->headers.end() || token->second.empty()) {
                return give(fmt::format("the server granted the lock on {} without a token", path));
            }
            std::string value = token->second;
            if (value.front() != '<') {
                value = "<" + value + ">";
            }
            return DavLock(&client, path, std::move(value));
        }
        if (response->status != 423 || std::chrono::steady_clock::now() + pause > end) {
            return give(
                response->status == 423
                    ? fmt::format("{} is locked by another device", path)
                    : fmt::format("the server refused to lock {} ({})", path, response->status));
        }
        std::this_thread::sleep_for(pause + std::chrono::milliseconds(random() % pause.count()));
        pause = std::min(pause * 2, std::chrono::milliseconds(1000));
    }
}

DavLock::DavLock(DavLock&& other) noexcept
    : client_(std::exchange(other.client_, nullptr)),
      path_(std::move(other.path_)),
      token_(std::move(other.token_)) {}

DavLock::~DavLock() {
    if (client_ == nullptr) {
        return;
    }
    DavClient::Request request;
    request.method = "UNLOCK";
    request.path = path_;
    request.headers = {"Lock-Token: " + token_};
    client_->perform(request, nullptr, nullptr);  // a failure leaves the lock to its time-out
}

}  // namespace qn::drive
