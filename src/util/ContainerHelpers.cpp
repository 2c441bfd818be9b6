#include "qn/util/ContainerHelpers.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

#include "qn/PathString.h"

namespace {

struct Settings {
    std::mutex mutex;
    std::string applicationIdentifier;
    std::string driveDirectory;
    std::string supportDirectory;
};

// Deliberately leaked: worker threads may still ask while static destructors run.
Settings& settings() {
    static auto* const instance = new Settings;
    return *instance;
}

std::string get(std::string Settings::*field) {
    Settings& s = settings();
    const std::lock_guard lock(s.mutex);
    return s.*field;
}

void set(std::string Settings::*field, std::string value) {
    Settings& s = settings();
    const std::lock_guard lock(s.mutex);
    (s.*field).swap(value);
}

std::string defaultApplicationIdentifier() {
    // The executable does not change while the process runs.
    static const std::string identifier = [] {
        std::vector<char> buffer(4096);
        const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (length <= 0 || static_cast<std::size_t>(length) >= buffer.size()) {
            return std::string("local.application");
        }
        std::string name = qn::lastPathComponent(std::string_view(buffer.data(), length));
        for (char& c : name) {
            const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                               (c >= '0' && c <= '9') || c == '-';
            if (!plain) {
                c = '-';
            }
        }
        return name.empty() ? std::string("local.application") : "local." + name;
    }();
    return identifier;
}

std::string homeDirectory() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        return home;
    }
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 &&
        result != nullptr && result->pw_dir != nullptr && *result->pw_dir != '\0') {
        return result->pw_dir;
    }
    return "/";
}

}  // namespace

std::string QNiCloudContainerIdentifier() {
    return "iCloud." + qn::applicationIdentifier();
}

qn::URL QNiCloudContainerURLFromIdentifier(std::string_view identifier) {
    if (identifier.empty() || identifier.find('/') != std::string_view::npos) {
        return qn::URL();
    }
    std::string folder(identifier);
    for (char& c : folder) {
        if (c == '.') {
            c = '~';
        }
    }
    return qn::URL::fileURLWithPath(
        qn::stringByAppendingPathComponent(qn::ubiquityDriveDirectory(), folder), true);
}

std::string QNApplicationSupportDirectoryAdd(std::string_view name) {
    return qn::stringByAppendingPathComponent(qn::applicationSupportDirectory(), name);
}

namespace qn {

void setApplicationIdentifier(std::string identifier) {
    set(&Settings::applicationIdentifier, std::move(identifier));
}

std::string applicationIdentifier() {
    std::string identifier = get(&Settings::applicationIdentifier);
    return identifier.empty() ? defaultApplicationIdentifier() : identifier;
}

void setUbiquityDriveDirectory(std::string path) {
    set(&Settings::driveDirectory, std::move(path));
}

std::string ubiquityDriveDirectory() {
    const std::string path = get(&Settings::driveDirectory);
    if (!path.empty()) {
        return stringByAppendingPathComponent(path, "");
    }
    return userDataDirectory() + "/QNiCloud/Mobile Documents";
}

void setApplicationSupportDirectory(std::string path) {
    set(&Settings::supportDirectory, std::move(path));
}

std::string applicationSupportDirectory() {
    const std::string path = get(&Settings::supportDirectory);
    if (!path.empty()) {
        return stringByAppendingPathComponent(path, "");
    }
    return stringByAppendingPathComponent(userDataDirectory(), applicationIdentifier());
}

std::string userDataDirectory() {
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    // The base-directory conventions say to ignore a relative value.
    if (dataHome != nullptr && dataHome[0] == '/') {
        return stringByAppendingPathComponent(dataHome, "");
    }
    return stringByAppendingPathComponent(homeDirectory(), ".local/share");
}

}  // namespace qn
