// `qnicloud mkdir/write/cat/cp/mv/rm/evict`: the container's items changed through the library's
// coordinated operations, so the library's cache and every other presenter stay in step.

#include <fmt/core.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Format.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace qnicloud {
namespace {

struct Item {
    std::string path;  // absolute
    bool isDirectory = false;
};

Item existing(Device& device, const std::string& given) {
    Item item{device.resolve(given)};
    if (!device.presenter().itemExistsAtPath(item.path, &item.isDirectory)) {
        throw CommandError(fmt::format("nothing at {}", given));
    }
    return item;
}

std::string reason(const qn::Error& error) {
    return error.code() == 0 ? std::string("it failed") : error.localizedDescription();
}

// Where `source` goes when it is copied or moved to `given`: into it when it is a folder.
std::string destination(Device& device, const Item& source, const std::string& given) {
    std::string path = device.resolve(given);
    bool isDirectory = false;
    if (device.presenter().itemExistsAtPath(path, &isDirectory) && isDirectory) {
        path += "/" + qn::lastPathComponent(source.path);
    }
    if (path == source.path) {
        throw CommandError(fmt::format("{} is already there", given));
    }
    if (source.isDirectory && qn::isBasePathOfPath(source.path, path)) {
        throw CommandError(fmt::format("{} cannot go inside itself", device.shown(source.path)));
    }
    return path;
}

void transfer(CLI::App& app, Run* run, const char* name, bool move) {
    auto* command =
        app.add_subcommand(name, move ? "Move or rename an item" : "Copy an item, folders whole");
    auto from = std::make_shared<std::string>();
    auto to = std::make_shared<std::string>();
    command->add_option("SOURCE", *from, "What to " + std::string(name))->required();
    command->add_option("DESTINATION", *to, "Its new path, or a folder to put it in")->required();
    command->callback([=] {
        *run = [=](Device& device) {
            const Item source = existing(device, *from);
            const std::string target = destination(device, source, *to);
            auto& presenter = device.presenter();
            qn::Error error;
            bool done = false;
            device.perform([&] {
                done = move ? presenter.moveItemAtPath(source.path, target, &error)
                            : presenter.copyItemAtPath(source.path, target, &error);
            });
            if (!done) {
                throw CommandError(fmt::format("cannot {} {}: {}", name, *from, reason(error)));
            }
        };
    });
}

}  // namespace

void addFileCommands(CLI::App& app, Run* run) {
    auto* mkdir = app.add_subcommand("mkdir", "Make folders");
    auto folders = std::make_shared<std::vector<std::string>>();
    auto parents = std::make_shared<bool>(false);
    mkdir->add_option("PATH", *folders, "The folders")->required();
    mkdir->add_flag("-p,--parents", *parents,
                    "Make missing folders above too; an existing one is fine");
    mkdir->callback([=] {
        *run = [=](Device& device) {
            auto& presenter = device.presenter();
            for (const auto& given : *folders) {
                const std::string path = device.resolve(given);
                bool isDirectory = false;
                if (presenter.itemExistsAtPath(path, &isDirectory)) {
                    if (*parents && isDirectory) {
                        continue;
                    }
                    throw CommandError(fmt::format("{} exists", given));
                }
                if (!*parents &&
                    !presenter.itemExistsAtPath(qn::stringByDeletingLastPathComponent(path))) {
                    throw CommandError(
                        fmt::format("no folder to make {} in (-p makes it too)", given));
                }
                qn::Error error;
                bool made = false;
                device.perform([&] {
                    made = presenter.createDirectoryAtPath(path, *parents, nullptr, &error);
                });
                if (!made) {
                    throw CommandError(fmt::format("cannot make {}: {}", given, reason(error)));
                }
            }
        };
    });

    auto* write = app.add_subcommand("write", "Write a file from TEXT or standard input");
    auto file = std::make_shared<std::string>();
    auto text = std::make_shared<std::string>();
    write->add_option("PATH", *file, "The file")->required();
    write->add_option("TEXT", *text, "The contents (standard input when left out)");
    write->callback([=, given = write] {
        *run = [=](Device& device) {
            const std::string path = device.resolve(*file);
            std::string contents = *text;
            if (given->count("TEXT") == 0) {
                contents.assign(std::istreambuf_iterator<char>(std::cin), {});
            }
            auto& presenter = device.presenter();
            bool isDirectory = false;
            if (presenter.itemExistsAtPath(path, &isDirectory) && isDirectory) {
                throw CommandError(fmt::format("{} is a folder", *file));
            }
            bool written = false;
            // Written beside and renamed into place: a failure leaves the old contents.
            device.perform([&] { written = presenter.createFileAtPath(path, contents); });
            if (!written) {
                throw CommandError(fmt::format("cannot write {}", *file));
            }
        };
    });

    auto* cat = app.add_subcommand("cat", "Print downloaded files");
    auto files = std::make_shared<std::vector<std::string>>();
    cat->add_option("PATH", *files, "The files")->required();
    cat->callback([=] {
        *run = [=](Device& device) {
            auto& presenter = device.presenter();
            for (const auto& given : *files) {
                const Item item = existing(device, given);
                if (item.isDirectory) {
                    throw CommandError(fmt::format("{} is a folder", given));
                }
                if (!presenter.isFileDownloadedAtPath(item.path)) {
                    throw CommandError(fmt::format(
                        "{} is in the cloud only: `qnicloud download {}` first", given, given));
                }
                qn::Error error;
                bool read = false;
                device.perform([&] {
                    read = presenter.readFromFileAtURL(
                        qn::URL::fileURLWithPath(item.path),
                        [](const qn::URL& url, qn::Error*) {
                            std::FILE* in = std::fopen(url.path().c_str(), "rb");
                            if (in == nullptr) {
                                return false;
                            }
                            char buffer[1 << 16];
                            std::size_t count = 0;
                            while ((count = std::fread(buffer, 1, sizeof buffer, in)) > 0) {
                                std::fwrite(buffer, 1, count, stdout);
                            }
                            const bool complete = std::ferror(in) == 0;
                            std::fclose(in);
                            return complete;
                        },
                        &error);
                });
                std::fflush(stdout);
                if (!read) {
                    throw CommandError(fmt::format("cannot read {}: {}", given, reason(error)));
                }
            }
        };
    });

    transfer(app, run, "cp", false);
    transfer(app, run, "mv", true);

    auto* rm = app.add_subcommand("rm", "Remove items, on every device");
    auto doomed = std::make_shared<std::vector<std::string>>();
    auto recursive = std::make_shared<bool>(false);
    rm->add_option("PATH", *doomed, "The items")->required();
    rm->add_flag("-r,--recursive", *recursive, "Remove folders with everything in them");
    rm->callback([=] {
        *run = [=](Device& device) {
            auto& presenter = device.presenter();
            for (const auto& given : *doomed) {
                const Item item = existing(device, given);
                if (item.path == presenter.documentsDirectoryURL().path()) {
                    throw CommandError("the Documents folder itself stays");
                }
                if (item.isDirectory && !*recursive) {
                    throw CommandError(fmt::format("{} is a folder (-r removes it)", given));
                }
                qn::Error error;
                bool removed = false;
                device.perform([&] { removed = presenter.removeItemAtPath(item.path, &error); });
                if (!removed) {
                    throw CommandError(fmt::format("cannot remove {}: {}", given, reason(error)));
                }
            }
        };
    });

    auto* evict = app.add_subcommand("evict", "Drop local copies; they stay in the cloud");
    auto evicted = std::make_shared<std::vector<std::string>>();
    evict->add_option("PATH", *evicted, "Files and folders")->required();
    evict->callback([=] {
        *run = [=](Device& device) {
            auto& presenter = device.presenter();
            std::vector<qn::URL> urls;
            std::uint64_t size = 0;
            for (const auto& given : *evicted) {
                const Item item = existing(device, given);
                std::vector<std::string> paths{item.path};
                if (item.isDirectory) {
                    paths.clear();
                    for (const auto& below :
                         presenter.subpathsOfDirectoryAtPath(item.path).value_or(paths)) {
                        paths.push_back(item.path + "/" + below);
                    }
                }
                for (const auto& path : paths) {
                    const auto metadata = presenter.metadataItemForPath(path);
                    bool isDirectory = false;
                    if (metadata != nullptr && presenter.itemExistsAtPath(path, &isDirectory) &&
                        !isDirectory && metadata->isDownloaded()) {
                        urls.push_back(qn::URL::fileURLWithPath(path));
                        size += metadata->contentSize();
                    }
                }
            }
            qn::Error error;
            bool done = false;
            device.perform([&] { done = presenter.evictUbiquitousItemsAtURLs(urls, &error); });
            if (!done) {
                throw CommandError(fmt::format("cannot evict: {}", reason(error)));
            }
            fmt::print("evicted {} files, {} freed\n", urls.size(), bytes(size));
        };
    });
}

}  // namespace qnicloud
