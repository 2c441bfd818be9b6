// `qnicloud versions` and `qnicloud resolve`: a document's versions in conflict, and ending the
// conflict by keeping the latest or by saving every version as a copy.

#include <fmt/core.h>

#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Format.h"
#include "qn/FileVersion.h"
#include "qn/PathString.h"

namespace qnicloud {
namespace {

std::uint64_t sizeOf(const qn::URL& url) {
    std::error_code error;
    const auto size = std::filesystem::file_size(url.path(), error);
    return error ? 0 : size;
}

// The document at `given`, downloaded: its versions are compared with its contents.
std::string document(Device& device, const std::string& given) {
    auto& presenter = device.presenter();
    const std::string path = device.resolve(given);
    bool isDirectory = false;
    if (!presenter.itemExistsAtPath(path, &isDirectory)) {
        throw CommandError(fmt::format("nothing at {}", given));
    }
    if (isDirectory) {
        throw CommandError(fmt::format("{} is a folder", given));
    }
    if (!presenter.isFileDownloadedAtPath(path)) {
        throw CommandError(
            fmt::format("{} is in the cloud only: `qnicloud download {}` first", given, given));
    }
    return path;
}

std::string describe(const qn::FileVersion& version) {
    const std::string computer = version.localizedNameOfSavingComputer();
    return fmt::format("{:<9} {}  {:>10}  {}", version.isCurrentVersion() ? "current" : "conflict",
                       localTime(version.modificationDate()), bytes(sizeOf(version.URL())),
                       version.isCurrentVersion() ? "the document as it is"
                       : computer.empty()         ? "saved on an unknown computer"
                                                  : "saved on " + computer);
}

}  // namespace

void addConflictCommands(CLI::App& app, Run* run) {
    auto* versions = app.add_subcommand("versions", "A document's versions in conflict");
    auto file = std::make_shared<std::string>();
    versions->add_option("PATH", *file, "The document")->required();
    versions->callback([=] {
        *run = [=](Device& device) {
            const qn::URL url = qn::URL::fileURLWithPath(document(device, *file));
            std::vector<std::shared_ptr<qn::FileVersion>> listed;
            device.perform([&] {
                if (auto current = qn::FileVersion::currentVersionOfItemAtURL(url)) {
                    listed.push_back(std::move(current));
                }
                for (auto& conflict : qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(url)) {
                    listed.push_back(std::move(conflict));
                }
            });
            for (const auto& version : listed) {
                fmt::print("{}\n", describe(*version));
            }
            if (listed.size() < 2) {
                fmt::print("no conflict\n");
            }
        };
    });

    auto* resolve = app.add_subcommand("resolve", "End a document's conflict");
    auto keepLatest = std::make_shared<bool>(false);
    auto saveTo = std::make_shared<std::string>();
    resolve->add_option("PATH", *file, "The document")->required();
    auto* keep =
        resolve->add_flag("--keep-latest", *keepLatest, "The latest version becomes the document");
    auto* save = resolve->add_option("--save-all", *saveTo, "Save each version in conflict to DIR");
    save->type_name("DIR");
    keep->excludes(save);
    resolve->callback([=] {
        *run = [=](Device& device) {
            if (!*keepLatest && saveTo->empty()) {
                throw CommandError("say how: --keep-latest or --save-all DIR");
            }
            auto& presenter = device.presenter();
            const std::string path = document(device, *file);
            const qn::URL url = qn::URL::fileURLWithPath(path);
            std::vector<std::shared_ptr<qn::FileVersion>> conflicts;
            device.perform(
                [&] { conflicts = qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(url); });
            if (conflicts.empty()) {
                throw CommandError(fmt::format("{} has no conflict to resolve", *file));
            }
            std::string failure;
            std::vector<qn::URL> saved;
            const auto failed = [&](const qn::Error& error) {
                failure = error.localizedDescription();
            };
            const auto completed = [&](const qn::URL&, const std::vector<qn::URL>& urls) {
                saved = urls;
            };
            if (!*keepLatest) {
                const std::string folder = qn::stringByStandardizingPath(
                    saveTo->starts_with('/')
                        ? *saveTo
                        : presenter.documentsDirectoryURL().path() + "/" + *saveTo);
                std::error_code error;
                if (!std::filesystem::is_directory(folder, error)) {
                    throw CommandError(fmt::format("no folder at {}", *saveTo));
                }
                device.perform([&] {
                    presenter.resolveConflictsForItemAtURL(
                        url, conflicts, conflicts, qn::URL::fileURLWithPath(folder, true), nullptr,
                        nullptr, nullptr, completed, failed);
                });
                if (!failure.empty()) {
                    throw CommandError(fmt::format("cannot resolve {}: {}", *file, failure));
                }
                for (const auto& copy : saved) {
                    fmt::print("saved {}\n", device.shown(copy.path()));
                }
                return;
            }
            // The latest version is saved beside the document, then put in its place: the
            // document keeps its name and every device sees one change, never a removal.
            const auto latest = qn::FileVersion::latestVersionOfItemAtURL(url);
            device.perform([&] {
                // The work runs on a queue of the library's; this thread waits for its end.
                std::promise<void> finished;
                presenter.resolveConflictsBySavingLatestVersionForItemAtURL(
                    url, url.URLByDeletingLastPathComponent(),
                    [](const std::shared_ptr<qn::FileVersion>&) { return false; }, nullptr,
                    [&](const qn::URL& item, const std::vector<qn::URL>& urls) {
                        completed(item, urls);
                        finished.set_value();
                    },
                    [&](const qn::Error& error) {
                        failed(error);
                        finished.set_value();
                    });
                finished.get_future().wait();
                if (failure.empty() && !saved.empty()) {
                    qn::Error error;
                    if (!presenter.replaceItemAtURL(url, saved.front(), "", {}, nullptr, &error) ||
                        error.code() != 0) {
                        failure = error.localizedDescription();
                    }
                }
            });
            if (!failure.empty()) {
                throw CommandError(fmt::format("cannot resolve {}: {}", *file, failure));
            }
            fmt::print("kept the version of {} ({})\n", localTime(latest->modificationDate()),
                       latest->isCurrentVersion()
                           ? "the document as it was"
                           : "saved on " + latest->localizedNameOfSavingComputer());
        };
    });
}

}  // namespace qnicloud
