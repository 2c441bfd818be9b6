#include "Device.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "Interruption.h"
#include "QNiCloud/QNiCloud.h"
#include "qn/DirectoryStore.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/PathString.h"
#include "qn/util/ContainerHelpers.h"

namespace qnicloud {
namespace {

constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kCatchUp = std::chrono::seconds(10);

std::string defaultDirectory() {
    if (const char* set = std::getenv("QNICLOUD_DEVICE"); set != nullptr && *set != '\0') {
        return set;
    }
    return qn::userDataDirectory() + "/QNiCloud/device";
}

}  // namespace

Device::Device(Options options)
    : directory_(options.directory.empty() ? defaultDirectory() : std::move(options.directory)),
      container_(std::move(options.container)),
      name_(std::move(options.name)),
      offline_(options.offline) {}

Device::~Device() {
    if (drive_ != nullptr && !hurry_ && !offline_ && reachable()) {
        // What the command changed, and what the device found changed, reaches the store before
        // the engine stops with the process, unless Ctrl-C says not to wait.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!drive_->waitUntilIdle(std::chrono::milliseconds(100)) &&
               !Interruption::requested() && std::chrono::steady_clock::now() < end) {
        }
    }
    if (presenter_ != nullptr) {
        QNiCloudDocumentsPresenter::setDefaultPresenter(nullptr);
        const std::weak_ptr<QNiCloudDocumentsPresenter> gone = presenter_;
        presenter_.reset();
        qn::MainQueue::runUntil([&] { return gone.expired(); }, std::chrono::seconds(10));
    }
    qn::UbiquityService::setCurrent(nullptr);
}

std::string Device::storePath() const {
    std::ifstream file(directory_ + "/store-path");
    std::string path;
    std::getline(file, path);
    return path;
}

void Device::rememberStorePath(const std::string& store) const {
    std::filesystem::create_directories(directory_);
    const std::string temporary = directory_ + "/store-path.new";
    std::ofstream(temporary) << (isURL(store) ? store : std::filesystem::absolute(store).string())
                             << "\n";
    std::filesystem::rename(temporary, directory_ + "/store-path");
}

bool Device::isURL(const std::string& location) {
    return location.starts_with("http://") || location.starts_with("https://");
}

void Device::rememberWebDAV(const qn::WebDAVStore::Options& options) const {
    std::filesystem::create_directories(directory_);
    const std::string file = directory_ + "/webdav";
    const std::string temporary = file + ".new";
    {
        std::ofstream(temporary).close();
        std::filesystem::permissions(
            temporary, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        std::ofstream out(temporary);
        out << "url=" << options.url << "\nuser=" << options.user
            << "\npassword=" << options.password << "\nca=" << options.certificateAuthority
            << "\ninsecure=" << (options.allowUnverifiedCertificate ? 1 : 0) << "\n";
    }
    std::filesystem::rename(temporary, file);
}

std::shared_ptr<qn::DriveStore> Device::makeStore(const std::string& location) const {
    if (!isURL(location)) {
        return qn::DirectoryStore::open(location);
    }
    qn::WebDAVStore::Options options;
    std::ifstream file(directory_ + "/webdav");
    std::map<std::string, std::string> remembered;
    for (std::string line; std::getline(file, line);) {
        if (const auto equals = line.find('='); equals != std::string::npos) {
            remembered[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    if (remembered["url"] == location) {
        options.user = remembered["user"];
        options.password = remembered["password"];
        options.certificateAuthority = remembered["ca"];
        options.allowUnverifiedCertificate = remembered["insecure"] == "1";
    }
    options.url = location;
    return qn::WebDAVStore::open(std::move(options));
}

qn::DriveService& Device::open(const std::string& store) {
    if (drive_ != nullptr) {
        return *drive_;
    }
    const std::string path = store.empty() ? storePath() : store;
    if (path.empty()) {
        throw CommandError(fmt::format(
            "the device {} has no store yet: sign in with `qnicloud account sign-in NAME --store "
            "DIR`",
            directory_));
    }
    const std::string nameFile = directory_ + "/device-name";
    if (name_.empty()) {
        std::ifstream file(nameFile);
        std::getline(file, name_);
    } else {
        std::filesystem::create_directories(directory_);
        std::ofstream(nameFile) << name_ << "\n";
    }
    qn::DriveService::Options options;
    options.deviceDirectory = directory_;
    options.deviceName = name_;
    options.syncPaused = offline_;
    options.store = makeStore(path);
    qn::Error error;
    drive_ = qn::DriveService::open(options, &error);
    if (drive_ == nullptr) {
        throw CommandError(error.localizedDescription());
    }
    qn::setUbiquityDriveDirectory(drive_->driveDirectory());
    qn::UbiquityService::setCurrent(drive_);
    return *drive_;
}

qn::DriveService& Device::drive() {
    return open();
}

QNiCloudDocumentsPresenter& Device::presenter() {
    if (presenter_ != nullptr) {
        return *presenter_;
    }
    if (!drive().account()) {
        throw CommandError("no account is signed in on this device");
    }
    if (!offline_ && reachable()) {
        // A command shows and changes what the store has now, not what the device last saw.
        drive().waitUntilIdle(kCatchUp);
    }
    // The presenter reads the account on its own, after it is made. What it finds starts over
    // what ran before: on the main queue the host hears the account, then (from a background
    // task) the cache being cleared once more, and only the listing initialised after that
    // clearing lasts. Registering once the account is known keeps the downloads manager from
    // dropping requests; waiting for that listing keeps a command from reading a cache about to
    // be cleared.
    enum class Heard { Nothing, Account, Cleared, Listing };
    Heard heard = Heard::Nothing;
    auto& center = qn::NotificationCenter::defaultCenter();
    const auto follow = [&](std::string_view name, Heard from, Heard to) {
        return center.addObserver(name, nullptr, [&heard, from, to](const qn::Notification&) {
            if (heard == from) {
                heard = to;
            }
        });
    };
    const auto account =
        follow(QNiCloudAccountStateDidChangeNotification, Heard::Nothing, Heard::Account);
    const auto cleared = follow(QNiCloudDidClearCacheNotification, Heard::Account, Heard::Cleared);
    const auto listing =
        follow(QNiCloudCacheInitializedNotification, Heard::Cleared, Heard::Listing);
    presenter_ = QNiCloudDocumentsPresenter::initWithContainerIdentifier(container_);
    if (!qn::MainQueue::runUntil([&] { return heard != Heard::Nothing; }, kPatience)) {
        throw CommandError("the device's account did not answer in time");
    }
    QNiCloudDocumentsPresenter::setDefaultPresenter(presenter_);
    presenter_->setCacheUpdatesInterval(0.05);
    // A command downloads what it is asked to and nothing else: no file has "/" as extension.
    presenter_->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"/"});
    presenter_->registerForFileChangesNotifications();
    if (!qn::MainQueue::runUntil([&] { return heard == Heard::Listing; }, kPatience)) {
        throw CommandError("the container's listing did not arrive in time");
    }
    return *presenter_;
}

bool Device::reachable() {
    return drive().isNetworkReachable().value_or(false);
}

std::string Device::resolve(const std::string& path) {
    const std::string documents = presenter().documentsDirectoryURL().path();
    const std::string absolute =
        qn::stringByStandardizingPath(path.starts_with('/') ? path : documents + "/" + path);
    if (!isInDocuments(absolute)) {
        throw CommandError(
            fmt::format("{} is outside the container's Documents folder ({})", path, documents));
    }
    return absolute;
}

bool Device::isInDocuments(const std::string& path) {
    const std::string documents = presenter().documentsDirectoryURL().path();
    return path == documents || path.starts_with(documents + "/");
}

std::string Device::shown(const std::string& path) {
    const std::string documents = presenter().documentsDirectoryURL().path();
    if (path == documents) {
        return ".";
    }
    return path.starts_with(documents + "/") ? path.substr(documents.size() + 1) : path;
}

void Device::perform(const std::function<void()>& work) {
    std::exception_ptr failure;
    bool done = false;
    std::mutex mutex;
    std::thread worker([&] {
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        std::lock_guard lock(mutex);
        done = true;
    });
    qn::MainQueue::runUntil(
        [&] {
            std::lock_guard lock(mutex);
            return done;
        },
        std::chrono::hours(24 * 365));
    worker.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace qnicloud
