// `qnicloud download`: files and whole folders made local through the library's downloads
// manager, a few at a time, with progress; Ctrl-C cancels what is left and abandons what is
// under way, so that no file is ever left half-written.

#include <fmt/core.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Format.h"
#include "Interruption.h"
#include "ProgressDisplay.h"
#include "QNiCloud/QNiCloudBackgroundOperation.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/MainQueue.h"

namespace qnicloud {
namespace {

struct Wanted {
    std::vector<qn::URL> urls;
    std::uint64_t size = 0;
    std::size_t alreadyHere = 0;
};

// The files named, and those below the folders named, that are not local yet.
Wanted expand(Device& device, const std::vector<std::string>& given) {
    auto& presenter = device.presenter();
    Wanted wanted;
    for (const auto& name : given) {
        const std::string path = device.resolve(name);
        bool isDirectory = false;
        if (!presenter.itemExistsAtPath(path, &isDirectory)) {
            throw CommandError(fmt::format("nothing at {}", name));
        }
        std::vector<std::string> files{path};
        if (isDirectory) {
            files.clear();
            for (const auto& below : presenter.subpathsOfDirectoryAtPath(path).value_or(files)) {
                files.push_back(path + "/" + below);
            }
        }
        for (const auto& file : files) {
            const auto item = presenter.metadataItemForPath(file);
            if (item == nullptr ||
                (presenter.itemExistsAtPath(file, &isDirectory) && isDirectory)) {
                continue;
            }
            if (item->isDownloaded()) {
                ++wanted.alreadyHere;
            } else {
                wanted.urls.push_back(qn::URL::fileURLWithPath(file));
                wanted.size += item->contentSize();
            }
        }
    }
    return wanted;
}

}  // namespace

void addDownloadCommand(CLI::App& app, Run* run) {
    auto* download = app.add_subcommand("download", "Download files and folders, with progress");
    auto paths = std::make_shared<std::vector<std::string>>();
    auto max = std::make_shared<std::uint64_t>(0);
    download->add_option("PATH", *paths, "Files and folders")->required();
    download->add_option("--max", *max, "Files at once (default 3)")->check(CLI::Range(1, 64));
    download->callback([=] {
        *run = [=](Device& device) {
            const Wanted wanted = expand(device, *paths);
            if (wanted.urls.empty()) {
                fmt::print("nothing to download: {} file{} already here\n", wanted.alreadyHere,
                           wanted.alreadyHere == 1 ? " is" : "s are");
                return;
            }
            const auto& manager = QNiCloudDownloadsManager::sharedManager();
            if (*max != 0) {
                manager->setMaxSimultaneousFileDownloadsCount(*max);
            }
            // Shared with the handlers: one may still be on its way to the main thread when the
            // command ends, and the main thread still runs while the device closes.
            struct Batch {
                ProgressDisplay display;
                std::size_t downloaded = 0;
                std::vector<std::string> failures;
            };
            const auto batch = std::make_shared<Batch>(
                Batch{ProgressDisplay(wanted.urls.size(), wanted.size), 0, {}});
            auto& display = batch->display;
            auto& downloaded = batch->downloaded;
            auto& failures = batch->failures;
            const auto token = QNiCloudBackgroundOperation::operation();
            // One request per file, all with the same token: a failure then names its file.
            for (const auto& url : wanted.urls) {
                const std::string name = device.shown(url.path());
                const auto accepted = manager->downloadItemsAtURLs(
                    {url}, token, 0,
                    [batch, name](const QNBackgroundOperationPointer&, const qn::URL&,
                                  std::uint64_t size, std::uint64_t done, std::uint64_t,
                                  double) { batch->display.progress(name, size, done); },
                    [batch, name](const QNBackgroundOperationPointer&, const qn::URL&,
                                  std::uint64_t size, std::uint64_t) {
                        ++batch->downloaded;
                        batch->display.finished(name, size);
                    },
                    nullptr, nullptr,
                    [batch, name](const QNBackgroundOperationPointer&, const qn::Error& error) {
                        batch->failures.push_back(error.localizedDescription());
                        batch->display.failed(name, error.localizedDescription());
                    });
                if (accepted == nullptr) {
                    token->cancel();
                    display.close("nothing more is asked for");
                    throw CommandError(fmt::format("cannot download: {}", failures.empty()
                                                                              ? "the store is away"
                                                                              : failures.back()));
                }
            }
            qn::MainQueue::runUntil(
                [&] {
                    return Interruption::requested() ||
                           downloaded + failures.size() >= wanted.urls.size();
                },
                std::chrono::hours(24 * 365));
            if (Interruption::requested()) {
                token->cancel();
                device.hurry();
                display.close(fmt::format("interrupted: {} of {} files downloaded", downloaded,
                                          wanted.urls.size()));
                throw CommandError("interrupted; what was under way stays in the cloud", 130);
            }
            display.close(fmt::format("{} of {} files downloaded, {}", downloaded,
                                      wanted.urls.size(), bytes(wanted.size)));
            if (!failures.empty()) {
                throw CommandError(fmt::format("{} file{} could not be downloaded", failures.size(),
                                               failures.size() == 1 ? "" : "s"));
            }
        };
    });
}

}  // namespace qnicloud
