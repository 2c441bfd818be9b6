#include "qn/FileVersionConflicts.h"

#include <fmt/core.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "FileErrors.h"
#include "qn/FileManager.h"
#include "qn/Logger.h"

namespace qn {
namespace {

// Longest file name most file systems accept, in bytes.
constexpr std::size_t kMaxNameLength = 255;
// Long enough to tell computers apart, short enough to leave room for the document's name.
constexpr std::size_t kMaxComputerNameLength = 64;
// Beyond this many "Name ... N" already present something is wrong with the directory.
constexpr int kMaxNameAttempts = 1000;

std::string_view truncatedUTF8(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes) {
        return text;
    }
    std::size_t end = maxBytes;
    // Never cut a multi-byte character: back up over continuation bytes.
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

// The computer's name as it may appear in a file name: no separators or control characters.
std::string computerNameForFileName(std::string_view name) {
    std::string cleaned;
    for (const char c : truncatedUTF8(name, kMaxComputerNameLength)) {
        const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
        cleaned += (c == '/' || control) ? '-' : c;
    }
    const std::size_t first = cleaned.find_first_not_of(' ');
    return first == std::string::npos
               ? std::string()
               : cleaned.substr(first, cleaned.find_last_not_of(' ') - first + 1);
}

// "Name (conflict from Computer).ext" for attempt 1, "Name (conflict from Computer) 2.ext" after.
std::string copyName(const URL& itemURL, const std::string& computer, int attempt) {
    const std::string extension = itemURL.pathExtension();
    std::string tag =
        computer.empty() ? " (conflict)" : fmt::format(" (conflict from {})", computer);
    if (attempt > 1) {
        tag += fmt::format(" {}", attempt);
    }
    const std::string suffix = extension.empty() ? tag : tag + "." + extension;
    const std::string base = itemURL.URLByDeletingPathExtension().lastPathComponent();
    const std::size_t room = kMaxNameLength > suffix.size() ? kMaxNameLength - suffix.size() : 0;
    return std::string(truncatedUTF8(base, room)) + suffix;
}

URL stagingURLIn(const URL& directory, bool isDirectory) {
    static std::atomic<unsigned> counter{0};
    return directory.URLByAppendingPathComponent(
        fmt::format(".conflict-copy-{}-{}", ::getpid(), ++counter), isDirectory);
}

bool isVersionOf(const FileVersion& version, const URL& itemURL) {
    return version.itemURL().URLByStandardizingPath().path() ==
           itemURL.URLByStandardizingPath().path();
}

// Runs `work` on the granted URL under a coordinated write of `url`. False with the coordinator's
// error when access is not granted, or with the error of `work` when it fails.
bool writeCoordinated(FileCoordinator& coordinator, const URL& url,
                      FileCoordinatorWritingOptions options, Error* error,
                      const std::function<bool(const URL& grantedURL, Error* error)>& work) {
    bool ran = false;
    bool succeeded = false;
    Error failure;
    coordinator.coordinateWritingItemAtURL(url, options, &failure, [&](const URL& grantedURL) {
        ran = true;
        succeeded = work(grantedURL, &failure);
    });
    if (ran && succeeded) {
        return true;
    }
    setError(error, std::move(failure));
    return false;
}

// Copies `version` into `directory` under the first free name; returns the copy's URL.
std::optional<URL> saveCopy(FileManager& fileManager, const FileVersion& version,
                            const URL& itemURL, const URL& directory, Error* error) {
    const bool isDirectory = itemURL.hasDirectoryPath() || version.URL().hasDirectoryPath();
    // Staged under a hidden name first: a copy that fails half-way never looks like a document,
    // and the move to the final name is atomic and never replaces anything.
    URL staged;
    Error copyError;
    bool copied = false;
    for (int attempt = 0; attempt < 8 && !copied; ++attempt) {
        staged = stagingURLIn(directory, isDirectory);
        copyError = Error();
        copied = fileManager.copyItemAtURL(version.URL(), staged, &copyError);
        if (!copied && copyError.code() != NSFileWriteFileExistsError) {
            fileManager.removeItemAtURL(staged);
            break;
        }
    }
    if (!copied) {
        setError(error, std::move(copyError));
        return std::nullopt;
    }
    const std::string computer = computerNameForFileName(version.localizedNameOfSavingComputer());
    Error moveError;
    for (int attempt = 1; attempt <= kMaxNameAttempts; ++attempt) {
        const URL destination = directory.URLByAppendingPathComponent(
            copyName(itemURL, computer, attempt), isDirectory);
        moveError = Error();
        if (fileManager.moveItemAtURL(staged, destination, &moveError)) {
            return destination;
        }
        if (moveError.code() != NSFileWriteFileExistsError) {
            break;
        }
    }
    fileManager.removeItemAtURL(staged);
    setError(error, std::move(moveError));
    return std::nullopt;
}

}  // namespace

bool removeConflictFileVersion(const std::shared_ptr<FileVersion>& version,
                               const std::shared_ptr<FileCoordinator>& fileCoordinator,
                               Error* error) {
    if (!version) {
        setError(error, invalidRequestError(FileAccess::Writing, "", "No file version to remove."));
        return false;
    }
    if (version->isCurrentVersion()) {
        return version->removeAndReturnError(error);  // refuses, touching nothing
    }
    const std::shared_ptr<FileCoordinator> coordinator =
        fileCoordinator ? fileCoordinator : FileCoordinator::make(nullptr);
    return writeCoordinated(
        *coordinator, version->itemURL(), 0, error,
        [&](const URL&, Error* failure) { return version->removeAndReturnError(failure); });
}

void resolveConflictsForItemAtURL(const URL& url,
                                  std::vector<std::shared_ptr<FileVersion>> bySavingVersions,
                                  std::vector<std::shared_ptr<FileVersion>> andDeletingVersions,
                                  const URL& parentURLToSaveTo,
                                  std::shared_ptr<FileCoordinator> fileCoordinator,
                                  const ConflictRemoveCurrentVersionHandler& removeCurrentVersion,
                                  const ConflictProgressHandler& progressHandler,
                                  const ConflictCompletionHandler& completionHandler,
                                  const ConflictErrorHandler& errorHandler) {
    // The first failure ends the operation, so this is called at most once.
    const auto fail = [&errorHandler](const Error& error) {
        if (errorHandler) {
            errorHandler(error);
        } else {
            Logger::named("iCloud").warn("Resolving a version conflict failed: {}",
                                         error.description());
        }
    };

    // Refuse bad input before anything changes on disk or in the service.
    if (url.isEmpty()) {
        fail(invalidRequestError(FileAccess::Writing, "",
                                 "No item was given whose conflict to resolve."));
        return;
    }
    bool savesCopies = false;
    for (const auto* versions : {&bySavingVersions, &andDeletingVersions}) {
        for (const std::shared_ptr<FileVersion>& version : *versions) {
            if (!version) {
                fail(invalidRequestError(FileAccess::Writing, url.path(),
                                         fmt::format("A missing file version was given for “{}”.",
                                                     url.lastPathComponent())));
                return;
            }
            if (!isVersionOf(*version, url)) {
                fail(invalidRequestError(
                    FileAccess::Writing, url.path(),
                    fmt::format("A version of “{}” was given to resolve the conflict of “{}”.",
                                version->itemURL().path(), url.path())));
                return;
            }
            savesCopies =
                savesCopies || (versions == &bySavingVersions && !version->isCurrentVersion());
        }
    }
    if (savesCopies && parentURLToSaveTo.isEmpty()) {
        fail(invalidRequestError(FileAccess::Writing, url.path(),
                                 fmt::format("No folder was given to save the versions of “{}” to.",
                                             url.lastPathComponent())));
        return;
    }

    if (!fileCoordinator) {
        fileCoordinator = FileCoordinator::make(nullptr);
    }
    const std::shared_ptr<FileManager> fileManager = FileManager::defaultManager();
    const URL directory = URL::fileURLWithPath(parentURLToSaveTo.path(), true);
    const std::size_t total = bySavingVersions.size() + andDeletingVersions.size();
    std::size_t handled = 0;
    const auto report = [&](const std::shared_ptr<FileVersion>& version,
                            const std::optional<URL>& savedURL) {
        ++handled;
        if (progressHandler) {
            progressHandler(version, handled, savedURL, total);
        }
    };

    std::vector<URL> savedURLs;
    for (const std::shared_ptr<FileVersion>& version : bySavingVersions) {
        if (version->isCurrentVersion()) {
            report(version, std::nullopt);
            continue;
        }
        std::optional<URL> saved;
        bool ran = false;
        Error error;
        fileCoordinator->coordinateReadingItemAtURL(
            url, 0, directory, 0, &error, [&](const URL& itemURL, const URL& parentURL) {
                ran = true;
                saved = saveCopy(*fileManager, *version, itemURL, parentURL, &error);
            });
        if (!ran || !saved) {
            fail(error);
            return;
        }
        savedURLs.push_back(*saved);
        report(version, saved);
    }

    std::vector<std::shared_ptr<FileVersion>> currentVersionsToDelete;
    for (const std::shared_ptr<FileVersion>& version : andDeletingVersions) {
        if (version->isCurrentVersion()) {
            currentVersionsToDelete.push_back(version);
            continue;
        }
        Error error;
        if (!removeConflictFileVersion(version, fileCoordinator, &error)) {
            fail(error);
            return;
        }
        report(version, std::nullopt);
    }

    Error error;
    const bool resolved =
        writeCoordinated(*fileCoordinator, url, 0, &error, [](const URL& itemURL, Error* failure) {
            for (const auto& version :
                 FileVersion::unresolvedConflictVersionsOfItemAtURL(itemURL)) {
                if (!version->setResolved(true, failure)) {
                    return false;
                }
            }
            return true;
        });
    if (!resolved) {
        fail(error);
        return;
    }

    if (!currentVersionsToDelete.empty()) {
        const std::shared_ptr<FileVersion>& current = currentVersionsToDelete.front();
        if (removeCurrentVersion && removeCurrentVersion(current) &&
            !writeCoordinated(*fileCoordinator, url, NSFileCoordinatorWritingForDeleting, &error,
                              [&](const URL& itemURL, Error* failure) {
                                  return fileManager->removeItemAtURL(itemURL, failure);
                              })) {
            fail(error);
            return;
        }
        // Listed twice or more, it is still one file: asked and removed once, reported each time.
        for (const std::shared_ptr<FileVersion>& version : currentVersionsToDelete) {
            report(version, std::nullopt);
        }
    }

    if (completionHandler) {
        completionHandler(url, savedURLs);
    }
}

}  // namespace qn
