// `qnicloud monitor`: every notification the library posts to its host, one line each as it
// arrives, until Ctrl-C.

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "Commands.h"
#include "Format.h"
#include "Interruption.h"
#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"

namespace qnicloud {
namespace {

std::string clock() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return fmt::format("{}.{:03}", text, millis);
}

std::string accountState(std::int64_t state) {
    switch (state) {
        case QNiCloudAccountStateUnavailable:
            return "unavailable (signed out)";
        case QNiCloudAccountStateAvailable:
            return "available";
        case QNiCloudAccountStateChanged:
            return "changed to another account";
        case QNiCloudAccountStateBecameAvailable:
            return "became available (signed in)";
        default:
            return fmt::format("state {}", state);
    }
}

// The change as a person reads it; progress carries its percentage.
std::string change(std::int64_t type, const QNiCloudMetadataItem* item) {
    switch (type) {
        case QNiCloudFileChangeDownloaded:
            return "downloaded";
        case QNiCloudFileChangeDownloadingStarted:
            return "download started";
        case QNiCloudFileChangeDownloadProgress:
            return item == nullptr ? "downloading"
                                   : fmt::format("downloading {:.0f} %", item->percentDownloaded());
        case QNiCloudFileChangeUploaded:
            return "uploaded";
        case QNiCloudFileChangeUploadingStarted:
            return "upload started";
        case QNiCloudFileChangeUploadProgress:
            return item == nullptr ? "uploading"
                                   : fmt::format("uploading {:.0f} %", item->percentUploaded());
        case QNiCloudFileChangeConflictAppeared:
            return "conflict appeared";
        case QNiCloudFileChangeConflictResolved:
            return "conflict resolved";
        case QNiCloudFileChangeContentChanged:
            return "contents changed";
        default:
            return fmt::format("change {}", type);
    }
}

}  // namespace

void addMonitorCommand(CLI::App& app, Run* run) {
    app.add_subcommand("monitor", "Print each notification as it comes, to Ctrl-C")
        ->callback([run] {
            *run = [](Device& device) {
                // Shown relative to Documents when the presenter exists, as given before.
                bool ready = false;
                const auto name = [&](const qn::Notification& n) {
                    const std::string* path = n.userInfo.stringForKey(QNiCloudSourcePathKey);
                    if (path == nullptr) {
                        return std::string("?");
                    }
                    const bool folder =
                        n.userInfo.boolForKey(QNiCloudIsDirectoryKey).value_or(false);
                    const std::string shown = ready ? device.shown(*path) : *path;
                    return folder ? shown + "/" : shown;
                };
                // On a terminal a line never wraps: a path too long loses its start.
                winsize size{};
                const std::size_t width = ::isatty(STDOUT_FILENO) == 1 &&
                                                  ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 &&
                                                  size.ws_col > 40
                                              ? size.ws_col - 1
                                              : 0;
                const auto say = [width](const std::string& what, const std::string& detail,
                                         const std::string& path = {}) {
                    std::string line = fmt::format("{}  {:<10} {}", clock(), what, detail);
                    if (!path.empty()) {
                        line += detail.empty() ? "" : "  ";
                        line += width > line.size() + 8 ? fitEnd(path, width - line.size()) : path;
                    }
                    fmt::print("{}\n", line);
                    std::fflush(stdout);
                };
                auto& center = qn::NotificationCenter::defaultCenter();
                std::vector<qn::NotificationCenter::Observation> observers;
                const auto on = [&](const char* notification,
                                    qn::NotificationCenter::Observer handler) {
                    observers.push_back(
                        center.addObserver(notification, nullptr, std::move(handler)));
                };
                on(QNiCloudFileDidAppearNotification,
                   [&](const qn::Notification& n) { say("appeared", "", name(n)); });
                on(QNiCloudFileWasRemovedNotification,
                   [&](const qn::Notification& n) { say("removed", "", name(n)); });
                on(QNiCloudFileDidChangeNotification, [&](const qn::Notification& n) {
                    const auto type = n.userInfo.int64ForKey(QNiCloudFileChangeTypeKey).value_or(0);
                    const std::string* path = n.userInfo.stringForKey(QNiCloudSourcePathKey);
                    const auto item = ready && path != nullptr
                                          ? device.presenter().metadataItemForPath(*path)
                                          : nullptr;
                    say("changed", change(type, item.get()), name(n));
                });
                on(QNiCloudAccountStateDidChangeNotification, [&](const qn::Notification& n) {
                    say("account",
                        accountState(n.userInfo.int64ForKey(QNiCloudAccountStateKey).value_or(-1)));
                });
                on(QNiCloudDidInitializeContainerNotification,
                   [&](const qn::Notification&) { say("container", "ready"); });
                on(QNiCloudCacheInitializedNotification, [&](const qn::Notification& n) {
                    say("cache",
                        fmt::format(
                            "initialised, {} files",
                            n.userInfo.int64ForKey(QNiCloudNumberOfFilesInCacheKey).value_or(0)));
                });
                on(QNiCloudDidUpdateCacheNotification, [&](const qn::Notification& n) {
                    say("cache",
                        fmt::format(
                            "updated, {} files",
                            n.userInfo.int64ForKey(QNiCloudNumberOfFilesInCacheKey).value_or(0)));
                });
                on(QNiCloudDidClearCacheNotification,
                   [&](const qn::Notification&) { say("cache", "cleared"); });

                device.presenter();
                ready = true;
                say("watching", fmt::format("{} (Ctrl-C to stop)", device.container()));
                qn::MainQueue::runUntil([] { return Interruption::requested(); },
                                        std::chrono::hours(24 * 365 * 100));
                observers.clear();
                device.hurry();
            };
        });
}

}  // namespace qnicloud
