#include "Device.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "qn/DirectoryStore.h"
#include "qn/MainQueue.h"
#include "qn/util/ContainerHelpers.h"

namespace qnicloud {
namespace {

constexpr auto kPatience = std::chrono::seconds(60);

std::string defaultDirectory() {
    if (const char* set = std::getenv("QNICLOUD_DEVICE"); set != nullptr && *set != '\0') {
        return set;
    }
    return qn::userDataDirectory() + "/QNiCloud/device";
}

}  // namespace

Device::Device(std::string directory, std::string container)
    : directory_(directory.empty() ? defaultDirectory() : std::move(directory)),
      container_(std::move(container)) {}

Device::~Device() {
    if (drive_ != nullptr) {
        // What the command changed, and what the device found changed, reaches the store before
        // the engine stops with the process.
        drive_->waitUntilIdle(std::chrono::seconds(30));
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
    std::ofstream(temporary) << std::filesystem::absolute(store).string() << "\n";
    std::filesystem::rename(temporary, directory_ + "/store-path");
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
    qn::DriveService::Options options;
    options.deviceDirectory = directory_;
    options.store = qn::DirectoryStore::open(path);
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
    presenter_ = QNiCloudDocumentsPresenter::initWithContainerIdentifier(container_);
    QNiCloudDocumentsPresenter::setDefaultPresenter(presenter_);
    presenter_->setCacheUpdatesInterval(0.05);
    // A command downloads what it is asked to and nothing else: no file has "/" as extension.
    presenter_->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"/"});
    presenter_->registerForFileChangesNotifications();
    if (!qn::MainQueue::runUntil([&] { return presenter_->cacheInitialized(); }, kPatience)) {
        throw CommandError("the container's listing did not arrive in time");
    }
    return *presenter_;
}

}  // namespace qnicloud
