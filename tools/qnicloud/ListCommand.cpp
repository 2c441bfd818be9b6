// `qnicloud ls`: the items of a folder as the library's cache knows them, with their state.

#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "Format.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/PathString.h"

namespace qnicloud {
namespace {

struct Row {
    std::string path;  // relative to the folder listed
    bool isDirectory = false;
    std::string state;
    std::uint64_t size = 0;
    std::optional<qn::Date> date;
};

// What a person needs to know of an item first: in conflict, moving, here or only in the cloud.
std::string stateOf(const QNiCloudMetadataItem* item, bool isDirectory) {
    if (isDirectory) {
        return "folder";
    }
    if (item == nullptr) {
        return "local only";
    }
    if (item->hasUnresolvedConflicts()) {
        return "conflict";
    }
    if (item->isDownloading()) {
        return fmt::format("downloading {:.0f} %", item->percentDownloaded());
    }
    if (item->isUploading()) {
        return fmt::format("uploading {:.0f} %", item->percentUploaded());
    }
    return item->isDownloaded() ? "downloaded" : "cloud only";
}

}  // namespace

void addListCommand(CLI::App& app, Run* run) {
    auto* ls = app.add_subcommand("ls", "List a folder or file with each item's state");
    auto path = std::make_shared<std::string>();
    auto longForm = std::make_shared<bool>(false);
    auto recursive = std::make_shared<bool>(false);
    auto asJson = std::make_shared<bool>(false);
    ls->add_option("PATH", *path, "A folder, relative to Documents or absolute");
    ls->add_flag("-l", *longForm, "Sizes and dates too");
    ls->add_flag("-R", *recursive, "Everything below the folder");
    ls->add_flag("--json", *asJson, "One JSON array, for scripts");
    ls->callback([=] {
        *run = [=](Device& device) {
            auto& presenter = device.presenter();
            std::string folder = device.resolve(*path);
            bool isDirectory = false;
            if (!presenter.itemExistsAtPath(folder, &isDirectory)) {
                throw CommandError(fmt::format("nothing at {}", *path));
            }
            // The query covers what is in Documents, not Documents itself: while it is empty,
            // the cache cannot tell that it is a folder.
            isDirectory = isDirectory || folder == presenter.documentsDirectoryURL().path();
            std::vector<std::string> names;
            if (!isDirectory) {
                names.push_back(qn::lastPathComponent(folder));
                folder = qn::stringByDeletingLastPathComponent(folder);
            } else if (*recursive) {
                names = presenter.subpathsOfDirectoryAtPath(folder).value_or(names);
            } else {
                names = presenter.contentsOfDirectoryAtPath(folder).value_or(names);
            }
            std::sort(names.begin(), names.end());
            std::vector<Row> rows;
            for (const auto& name : names) {
                Row row;
                row.path = name;
                const std::string itemPath = folder + "/" + name;
                presenter.itemExistsAtPath(itemPath, &row.isDirectory);
                const auto item = presenter.metadataItemForPath(itemPath);
                row.state = stateOf(item.get(), row.isDirectory);
                if (item != nullptr) {
                    row.size = item->contentSize();
                    row.date = item->fsContentChangeDate();
                }
                rows.push_back(std::move(row));
            }
            if (*asJson) {
                fmt::print("[");
                for (std::size_t i = 0; i < rows.size(); ++i) {
                    const Row& row = rows[i];
                    fmt::print(
                        "{}{{\"path\": {}, \"folder\": {}, \"state\": {}, \"size\": {}, "
                        "\"date\": {}}}",
                        i == 0 ? "" : ", ", json(row.path), row.isDirectory ? "true" : "false",
                        json(row.state), row.size,
                        row.date ? json(row.date->description()) : std::string("null"));
                }
                fmt::print("]\n");
                return;
            }
            for (const Row& row : rows) {
                const std::string name = row.path + (row.isDirectory ? "/" : "");
                if (*longForm) {
                    fmt::print("{:<16} {:>10}  {:<16}  {}\n", row.state,
                               row.isDirectory ? std::string("-") : bytes(row.size),
                               row.date ? localTime(*row.date) : std::string(), name);
                } else {
                    fmt::print("{:<16} {}\n", row.state, name);
                }
            }
        };
    });
}

}  // namespace qnicloud
