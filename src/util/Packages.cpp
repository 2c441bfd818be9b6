#include "qn/util/Packages.h"

#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "qn/PathString.h"
#include "qn/util/PathNormalization.h"

namespace {

using ExtensionSet = std::unordered_set<std::string>;

struct PackageState {
    std::shared_mutex mutex;
    ExtensionSet extensions = qn::defaultPackageFileExtensions();
};

// Deliberately leaked: worker threads may still ask while static destructors run.
PackageState& state() {
    static auto* const instance = new PackageState;
    return *instance;
}

bool statPath(std::string_view path, struct stat& info) {
    if (path.empty()) {
        return false;
    }
    return ::stat(std::string(path).c_str(), &info) == 0;
}

}  // namespace

bool QNIsPackageFileExtension(std::string_view extension) {
    if (extension.empty()) {
        return false;
    }
    const std::string key = qn::lowercasePath(extension);
    PackageState& s = state();
    const std::shared_lock lock(s.mutex);
    return s.extensions.contains(key);
}

bool QNIsPackageFilePath(std::string_view path) {
    if (!QNIsPackageFileExtension(qn::pathExtension(path))) {
        return false;
    }
    struct stat info {};
    return statPath(path, info) && S_ISDIR(info.st_mode);
}

bool QNIsPackageFileURL(const qn::URL& url) {
    return QNIsPackageFilePath(url.path());
}

bool QNIsPackageOrFilePath(std::string_view path) {
    struct stat info {};
    if (!statPath(path, info)) {
        return false;
    }
    if (S_ISREG(info.st_mode)) {
        return true;
    }
    return S_ISDIR(info.st_mode) && QNIsPackageFileExtension(qn::pathExtension(path));
}

namespace qn {

void setPackageFileExtensions(std::unordered_set<std::string> extensions) {
    ExtensionSet cleaned;
    cleaned.reserve(extensions.size());
    for (const std::string& extension : extensions) {
        std::string_view text = extension;
        if (text.starts_with('.')) {
            text.remove_prefix(1);
        }
        if (!text.empty()) {
            cleaned.insert(lowercasePath(text));
        }
    }
    PackageState& s = state();
    const std::unique_lock lock(s.mutex);
    s.extensions.swap(cleaned);
    // The old set is destroyed after the lock is released, when `cleaned` goes out of scope.
}

std::unordered_set<std::string> defaultPackageFileExtensions() {
    return {
        // Applications and loadable code.
        "app",
        "appex",
        "bundle",
        "framework",
        "kext",
        "plugin",
        "prefpane",
        "qlgenerator",
        "saver",
        "service",
        "xpc",
        // Documents saved as directories by common desktop applications.
        "key",
        "numbers",
        "pages",
        "rtfd",
        "scriptd",
        "graffle",
        "sketch",
        "logicx",
        "band",
        "imovielibrary",
        "photoslibrary",
        "fcpbundle",
        "playground",
        "xcodeproj",
        "xcworkspace",
        "xcassets",
        "nib",
        "storyboardc",
        // Installers and disk images kept as directories.
        "pkg",
        "mpkg",
        "sparsebundle",
    };
}

}  // namespace qn
