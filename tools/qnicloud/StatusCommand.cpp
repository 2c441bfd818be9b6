// `qnicloud status`: where the device stands.

#include <fmt/core.h>

#include "Commands.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "QNiCloud/QNiCloudMetadataItem.h"

namespace qnicloud {

void addStatusCommand(CLI::App& app, Run* run) {
    app.add_subcommand("status", "Account, store and the documents' states")->callback([run] {
        *run = [](Device& device) {
            auto& drive = device.drive();
            const auto account = drive.account();
            fmt::print("device: {}\n", device.directory());
            fmt::print("store: {} ({})\n", device.storePath(),
                       drive.isNetworkReachable().value_or(false) ? "reachable" : "unreachable");
            fmt::print("account: {}\n", account.value_or("none"));
            if (!account) {
                return;
            }
            auto& presenter = device.presenter();
            const std::string documents = presenter.documentsDirectoryURL().path();
            fmt::print("container: {} at {}\n", device.container(),
                       drive.containerURL(device.container())->path());
            fmt::print("cache: {}\n",
                       presenter.cacheInitialized() ? "initialised" : "not initialised");
            std::size_t downloaded = 0, cloudOnly = 0, uploading = 0, conflicts = 0, folders = 0;
            presenter.enumerateDirectoryAtPath(
                documents, false, [&](const std::string& relative, const auto&) {
                    const std::string path = documents + "/" + relative;
                    const auto item = presenter.metadataItemForPath(path);
                    bool isDirectory = false;
                    if (item == nullptr || !presenter.itemExistsAtPath(path, &isDirectory)) {
                        return true;
                    }
                    if (isDirectory) {
                        ++folders;
                    } else if (item->isDownloaded()) {
                        ++downloaded;
                    } else {
                        ++cloudOnly;
                    }
                    uploading += item->isUploading() ? 1 : 0;
                    conflicts += item->hasUnresolvedConflicts() ? 1 : 0;
                    return true;
                });
            fmt::print(
                "items: {} downloaded, {} cloud only, {} uploading, {} in conflict, "
                "{} folders\n",
                downloaded, cloudOnly, uploading, conflicts, folders);
            fmt::print("downloads under way: {}\n",
                       QNiCloudDownloadsManager::sharedManager()->activeFilesDownloads().size());
        };
    });
}

}  // namespace qnicloud
