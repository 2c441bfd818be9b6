#include "qn/DriveService.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "DriveEngine.h"

namespace qn {

std::shared_ptr<DriveService> DriveService::open(Options options, Error* error) {
    const auto refuse = [&](std::string description) {
        setError(error, Error(NSCocoaErrorDomain, NSFileReadUnknownError,
                              {{NSLocalizedDescriptionKey, std::move(description)},
                               {NSFilePathErrorKey, options.deviceDirectory}}));
        return nullptr;
    };
    if (options.deviceDirectory.empty() || options.store == nullptr) {
        return refuse("A drive device needs a device directory and a store.");
    }
    // Kept absolute: the engine's paths are compared with the absolute ones of the URLs it is
    // asked about, and a later change of working directory must not move the device.
    std::error_code made;
    options.deviceDirectory = std::filesystem::absolute(options.deviceDirectory, made).string();
    if (!options.driveDirectory.empty()) {
        options.driveDirectory = std::filesystem::absolute(options.driveDirectory, made).string();
    }
    if (options.deviceName.empty()) {
        char host[256] = {};
        ::gethostname(host, sizeof host - 1);
        options.deviceName = host[0] != '\0' ? host : "device";
    }
    std::filesystem::create_directories(options.deviceDirectory, made);
    const std::string lockPath = options.deviceDirectory + "/engine.lock";
    const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd < 0) {
        return refuse(fmt::format("The drive device \"{}\" cannot be opened: {}.",
                                  options.deviceDirectory, std::strerror(errno)));
    }
    if (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        ::close(lockFd);
        return refuse(fmt::format("The drive device \"{}\" is in use by another engine.",
                                  options.deviceDirectory));
    }
    auto service = std::make_shared<DriveService>(Private(), std::move(options), lockFd);
    if (!service->engine_->start(service, error)) {
        return nullptr;
    }
    return service;
}

DriveService::DriveService(Private, Options options, int lockFd)
    : options_(std::move(options)),
      driveDirectory_(options_.driveDirectory.empty()
                          ? options_.deviceDirectory + "/Mobile Documents"
                          : options_.driveDirectory),
      lockFd_(lockFd),
      engine_(std::make_unique<drive::DriveEngine>(options_, driveDirectory_)) {}

DriveService::~DriveService() {
    engine_.reset();  // the thread stops before the device is let go
    ::close(lockFd_);
}

bool DriveService::signIn(std::string_view account, Error* error) {
    return engine_->signIn(account, error);
}

void DriveService::signOut() {
    engine_->signOut();
}

std::optional<std::string> DriveService::account() const {
    return engine_->account();
}

void DriveService::syncNow() {
    engine_->wake();
}

void DriveService::setSyncPaused(bool paused) {
    engine_->setPaused(paused);
}

bool DriveService::waitUntilIdle(std::chrono::milliseconds timeout) {
    return engine_->waitUntilIdle(timeout);
}

std::optional<UbiquityIdentityToken> DriveService::identityToken() {
    const auto account = engine_->account();
    if (!account) {
        return std::nullopt;
    }
    std::string archived = "qn.drive-account:";
    for (const unsigned char c : *account) {
        archived += fmt::format("{:02x}", c);
    }
    return UbiquityIdentityToken(std::move(archived));
}

std::optional<URL> DriveService::containerURL(std::string_view containerIdentifier) {
    return engine_->containerURL(containerIdentifier);
}

bool DriveService::startDownloading(const URL& url, Error* error) {
    return engine_->startDownloading(url, error);
}

bool DriveService::evict(const URL& url, Error* error) {
    return engine_->evict(url, error);
}

std::optional<Value> DriveService::resourceValue(const URL& url, std::string_view key,
                                                 Error* error) {
    return engine_->resourceValue(url, key, error);
}

std::uint64_t DriveService::startMetadataFeed(const std::vector<std::string>& scopes,
                                              std::shared_ptr<MetadataFeedObserver> observer) {
    return engine_->startFeed(scopes, std::move(observer));
}

void DriveService::stopMetadataFeed(std::uint64_t feed) {
    engine_->stopFeed(feed);
}

std::vector<FileVersionRecord> DriveService::otherVersionsOfItem(const URL& url) {
    return engine_->otherVersions(url);
}

bool DriveService::setVersionResolved(const URL& url, std::string_view versionIdentifier,
                                      bool resolved, Error* error) {
    return engine_->setVersionResolved(url, versionIdentifier, resolved, error);
}

bool DriveService::removeVersion(const URL& url, std::string_view versionIdentifier, Error* error) {
    return engine_->removeVersion(url, versionIdentifier, error);
}

std::optional<bool> DriveService::isNetworkReachable() {
    return engine_->reachable();
}

}  // namespace qn
