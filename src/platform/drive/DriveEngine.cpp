#include "DriveEngine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "../simulated/ItemReport.h"
#include "qn/FileAttributes.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/NotificationCenter.h"
#include "qn/UbiquityErrors.h"

namespace qn::drive {
namespace fs = std::filesystem;

namespace {

Logger& logger() {
    return Logger::named("drive");
}

Error serviceError(std::int64_t code, const URL& url, std::string reason) {
    return Error(NSCocoaErrorDomain, code,
                 {{NSURLErrorKey, url},
                  {NSFilePathErrorKey, url.path()},
                  {NSLocalizedFailureReasonErrorKey, std::move(reason)}});
}

// The error of a request that names no item of the signed-in account's containers.
Error unavailableError(const URL& url, bool signedIn) {
    return serviceError(NSUbiquitousFileUnavailableError, url,
                        signedIn ? "The item does not lie inside a container."
                                 : "No account is signed in to the drive.");
}

// A name safe as one file name for any account.
std::string fileNameOfAccount(std::string_view account) {
    std::string name;
    for (const char c : account) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || c == '@' || c == '-' || c == '_' || c == '+' ||
            (c == '.' && !name.empty())) {
            name += c;
        } else {
            name += fmt::format("%{:02X}", byte);
        }
    }
    return name;
}

// Writes `contents` to `path` through a temporary file renamed into place.
bool replaceFile(const std::string& path, std::string_view contents) {
    const std::string temporary = path + ".new";
    {
        std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
        stream << contents;
        if (!stream.flush()) {
            return false;
        }
    }
    return ::rename(temporary.c_str(), path.c_str()) == 0;
}

void postIdentityChange() {
    MainQueue::async([] {
        NotificationCenter::defaultCenter().post(NSUbiquityIdentityDidChangeNotification, nullptr);
    });
}

}  // namespace

DriveEngine::DriveEngine(const DriveService::Options& options, std::string driveDirectory)
    : options_(options),
      driveDirectory_(std::move(driveDirectory)),
      stateDirectory_(options.deviceDirectory),
      wakeFd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

DriveEngine::~DriveEngine() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake();
    if (thread_.joinable()) {
        thread_.join();
    }
    ::close(wakeFd_);
}

bool DriveEngine::start(std::weak_ptr<Object> owner, Error* error) {
    owner_ = std::move(owner);
    std::error_code ignored;
    fs::create_directories(driveDirectory_, ignored);
    fs::create_directories(stateDirectory_ + "/journals", ignored);
    std::ifstream accountFile(stateDirectory_ + "/account");
    std::string saved;
    std::getline(accountFile, saved);
    {
        std::lock_guard lock(accountMutex_);
        if (!saved.empty() && !switchAccountLocked(saved, error)) {
            return false;
        }
    }
    {
        std::lock_guard lock(mutex_);
        paused_ = options_.syncPaused;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

// Accounts.

bool DriveEngine::signIn(std::string_view account, Error* error) {
    const auto held = options_.store->accounts(error);
    if (!held) {
        return false;
    }
    if (std::find(held->begin(), held->end(), account) == held->end()) {
        setError(error, Error(QNDriveStoreErrorDomain, DriveStoreErrorNotFound,
                              {{NSLocalizedDescriptionKey,
                                fmt::format("The store holds no account \"{}\".", account)}}));
        return false;
    }
    bool changed = false;
    {
        std::lock_guard lock(accountMutex_);
        changed = account_ != account;
        if (changed && !switchAccountLocked(std::string(account), error)) {
            return false;
        }
    }
    if (changed) {
        postIdentityChange();
        wake();
    }
    return true;
}

void DriveEngine::signOut() {
    bool changed = false;
    {
        std::lock_guard lock(accountMutex_);
        changed = account_.has_value();
        if (changed) {
            switchAccountLocked(std::nullopt, nullptr);
        }
    }
    if (changed) {
        postIdentityChange();
    }
}

std::optional<std::string> DriveEngine::account() const {
    std::lock_guard lock(mutex_);
    return account_;
}

bool DriveEngine::switchAccountLocked(std::optional<std::string> account, Error* error) {
    if (account_) {
        parkContainersLocked(*account_);
    }
    journal_.reset();
    watcher_.clear();
    {
        std::lock_guard lock(mutex_);
        account_.reset();
        views_.clear();
        changedPaths_.clear();
        removedPaths_.clear();
        for (const auto& feed : feeds_) {
            feed->hearsChanges = false;  // the account it reported on is gone
        }
    }
    token_.clear();
    scannedAll_ = false;
    if (!replaceFile(stateDirectory_ + "/account", account ? *account + "\n" : "")) {
        logger().error("Could not record the account of device {}.", stateDirectory_);
    }
    if (!account) {
        return true;
    }
    unparkContainersLocked(*account);
    {
        std::lock_guard lock(mutex_);
        account_ = account;
    }
    if (!loadJournalLocked(error)) {
        std::lock_guard lock(mutex_);
        account_.reset();
        return false;
    }
    return true;
}

void DriveEngine::parkContainersLocked(const std::string& account) {
    const std::string parked = stateDirectory_ + "/parked/" + fileNameOfAccount(account);
    std::error_code ignored;
    fs::create_directories(parked, ignored);
    for (const auto& entry : fs::directory_iterator(driveDirectory_, ignored)) {
        fs::rename(entry.path(), parked / entry.path().filename(), ignored);
    }
}

void DriveEngine::unparkContainersLocked(const std::string& account) {
    const std::string parked = stateDirectory_ + "/parked/" + fileNameOfAccount(account);
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(parked, ignored)) {
        fs::rename(entry.path(), fs::path(driveDirectory_) / entry.path().filename(), ignored);
    }
    fs::remove(parked, ignored);
}

bool DriveEngine::loadJournalLocked(Error* error) {
    journal_ = Journal::open(
        stateDirectory_ + "/journals/" + fileNameOfAccount(*account_) + ".sqlite", error);
    if (journal_ == nullptr) {
        return false;
    }
    token_ = journal_->value("token");
    std::lock_guard lock(mutex_);
    for (auto& entry : journal_->entries()) {
        View view;
        view.current = entry.local;  // until the first scan says otherwise
        view.downloadRequested = entry.pending == Pending::Download;
        std::string path = entry.path;
        view.entry = std::move(entry);
        views_.emplace(std::move(path), std::move(view));
    }
    return true;
}

// Paths.

std::string DriveEngine::folderOfContainer(std::string_view identifier) {
    std::string folder(identifier);
    std::replace(folder.begin(), folder.end(), '.', '~');
    return folder;
}

std::optional<std::string> DriveEngine::containerOfFolder(std::string_view folder) {
    if (folder.empty() || folder.starts_with(".")) {
        return std::nullopt;
    }
    std::string identifier(folder);
    std::replace(identifier.begin(), identifier.end(), '~', '.');
    return identifier;
}

std::optional<std::string> DriveEngine::storePathOf(const URL& url) const {
    std::string path = url.path();
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    if (!path.starts_with(driveDirectory_ + "/")) {
        return std::nullopt;
    }
    const std::string_view relative = std::string_view(path).substr(driveDirectory_.size() + 1);
    const std::size_t slash = relative.find('/');
    const auto container = containerOfFolder(relative.substr(0, slash));
    if (!container) {
        return std::nullopt;
    }
    return slash == std::string_view::npos ? *container
                                           : *container + std::string(relative.substr(slash));
}

std::string DriveEngine::localPathOf(std::string_view storePath) const {
    const std::size_t slash = storePath.find('/');
    return driveDirectory_ + "/" + folderOfContainer(storePath.substr(0, slash)) +
           (slash == std::string_view::npos ? std::string() : std::string(storePath.substr(slash)));
}

std::optional<URL> DriveEngine::containerURL(std::string_view identifier) {
    if (identifier.empty() || identifier.find('/') != std::string_view::npos || !account()) {
        return std::nullopt;
    }
    const std::string local = localPathOf(identifier);
    std::error_code ignored;
    fs::create_directories(local, ignored);
    wake();  // a new container is synced from now on
    return URL::fileURLWithPath(local, true);
}

// Requests.

bool DriveEngine::startDownloading(const URL& url, Error* error) {
    const auto path = storePathOf(url);
    std::lock_guard lock(mutex_);
    if (!account_ || !path) {
        setError(error, unavailableError(url, account_.has_value()));
        return false;
    }
    const auto found = views_.find(*path);
    if (found == views_.end() || found->second.entry.revision.empty()) {
        setError(error,
                 serviceError(NSFileReadNoSuchFileError, url, "The drive has no item there."));
        return false;
    }
    // A folder asks for everything in it.
    const std::string below = *path + "/";
    bool wanted = false;
    for (auto it = found; it != views_.end() && (it == found || it->first.starts_with(below));
         ++it) {
        View& view = it->second;
        const bool current = view.current && view.current == view.entry.local;
        if (!view.entry.isDirectory && !current && !view.downloadRequested) {
            view.downloadRequested = true;
            wanted = true;
        }
    }
    if (wanted && reachable_ == false) {
        for (auto it = found; it != views_.end() && (it == found || it->first.starts_with(below));
             ++it) {
            it->second.downloadRequested = false;
        }
        setError(error, serviceError(NSUbiquitousFileUbiquityServerNotAvailable, url,
                                     "The drive's store cannot be reached."));
        return false;
    }
    if (wanted) {
        busy_ = true;
        woken_ = true;
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
    }
    return true;
}

bool DriveEngine::evict(const URL& url, Error* error) {
    const auto path = storePathOf(url);
    std::lock_guard accountLock(accountMutex_);
    std::unique_lock lock(mutex_);
    if (!account_ || !path) {
        setError(error, unavailableError(url, account_.has_value()));
        return false;
    }
    const auto found = views_.find(*path);
    if (found == views_.end() || found->second.entry.isDirectory || !found->second.entry.local) {
        setError(error, serviceError(NSFileReadNoSuchFileError, url,
                                     "The drive has no downloaded file there."));
        return false;
    }
    lock.unlock();
    bool isDirectory = false;
    const auto now = identityOfLocal(*path, &isDirectory);
    lock.lock();
    View& view = found->second;
    if (now && now != view.entry.local) {
        setError(error, serviceError(NSFileWriteUnknownError, url,
                                     "The file has changes that are not uploaded yet; it was not "
                                     "evicted."));
        return false;
    }
    lock.unlock();
    if (now && ::unlink(localPathOf(*path).c_str()) != 0 && errno != ENOENT) {
        setError(error, serviceError(NSFileWriteUnknownError, url,
                                     fmt::format("The local copy could not be removed: {}.",
                                                 std::strerror(errno))));
        return false;
    }
    lock.lock();
    view.entry.local.reset();
    view.current.reset();
    view.downloadRequested = false;
    lock.unlock();
    record(*path);
    return true;
}

std::optional<Value> DriveEngine::resourceValue(const URL& url, std::string_view key,
                                                Error* /*error*/) {
    if (key != NSURLUbiquitousItemIsUploadedKey && key != NSURLUbiquitousItemIsDownloadedKey &&
        key != NSURLUbiquitousItemDownloadingStatusKey) {
        return std::nullopt;
    }
    const auto path = storePathOf(url);
    std::lock_guard lock(mutex_);
    const auto found = path ? views_.find(*path) : views_.end();
    if (!account_ || found == views_.end()) {
        return std::nullopt;
    }
    const View& view = found->second;
    const bool local = view.current.has_value() && view.entry.local.has_value();
    if (key == NSURLUbiquitousItemIsUploadedKey) {
        return Value(!view.entry.revision.empty() && view.current == view.entry.local);
    }
    if (key == NSURLUbiquitousItemIsDownloadedKey) {
        return Value(local || view.entry.isDirectory);
    }
    return Value(local || view.entry.isDirectory
                     ? simulated::downloadingStatusName(SimulatedDownloadingStatus::Current)
                     : simulated::downloadingStatusName(SimulatedDownloadingStatus::NotDownloaded));
}

// Versions: asked of the store directly; their contents are fetched into the device's state
// folder so that a version has a URL to read.

std::vector<FileVersionRecord> DriveEngine::otherVersions(const URL& url) {
    const auto path = storePathOf(url);
    const auto account = this->account();
    if (!path || !account) {
        return {};
    }
    const auto versions = options_.store->versions(*account, *path, nullptr);
    if (!versions) {
        return {};
    }
    const std::string folder = stateDirectory_ + "/versions/" + fileNameOfAccount(*account);
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    std::vector<FileVersionRecord> records;
    for (const auto& version : *versions) {
        const std::string file = folder + "/" + version.identifier;
        if (!fs::exists(file)) {
            const std::string temporary = file + ".part";
            const int fd =
                ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            const bool fetched = fd >= 0 && options_.store->downloadVersion(
                                                *account, *path, version.identifier, fd, nullptr);
            if (fd >= 0) {
                ::close(fd);
            }
            if (!fetched || ::rename(temporary.c_str(), file.c_str()) != 0) {
                ::unlink(temporary.c_str());
                continue;
            }
        }
        records.push_back({version.identifier, URL::fileURLWithPath(file), version.modificationDate,
                           version.device, true, version.resolved});
    }
    return records;
}

bool DriveEngine::setVersionResolved(const URL& url, std::string_view identifier, bool resolved,
                                     Error* error) {
    const auto path = storePathOf(url);
    const auto account = this->account();
    if (!path || !account) {
        setError(error, unavailableError(url, account.has_value()));
        return false;
    }
    Error failed;
    if (!options_.store->setVersionResolved(*account, *path, identifier, resolved, &failed)) {
        setError(error,
                 serviceError(NSFileReadNoSuchFileError, url, failed.localizedDescription()));
        return false;
    }
    wake();
    return true;
}

bool DriveEngine::removeVersion(const URL& url, std::string_view identifier, Error* error) {
    const auto path = storePathOf(url);
    const auto account = this->account();
    if (!path || !account) {
        setError(error, unavailableError(url, account.has_value()));
        return false;
    }
    Error failed;
    if (!options_.store->removeVersion(*account, *path, identifier, &failed)) {
        setError(error,
                 serviceError(NSFileReadNoSuchFileError, url, failed.localizedDescription()));
        return false;
    }
    std::error_code ignored;
    fs::remove(stateDirectory_ + "/versions/" + fileNameOfAccount(*account) + "/" +
                   std::string(identifier),
               ignored);
    wake();
    return true;
}

bool DriveEngine::reachable() {
    return options_.store->isReachable();
}

// Feeds.

std::uint64_t DriveEngine::startFeed(const std::vector<std::string>& scopes,
                                     std::shared_ptr<MetadataFeedObserver> observer) {
    auto feed = std::make_shared<Feed>();
    feed->documents = std::find(scopes.begin(), scopes.end(),
                                NSMetadataQueryUbiquitousDocumentsScope) != scopes.end();
    feed->data =
        std::find(scopes.begin(), scopes.end(), NSMetadataQueryUbiquitousDataScope) != scopes.end();
    feed->observer = std::move(observer);
    {
        std::lock_guard lock(mutex_);
        feed->id = ++lastFeedId_;
        feeds_.push_back(feed);
    }
    wake();
    return feed->id;
}

void DriveEngine::stopFeed(std::uint64_t id) {
    std::shared_ptr<MetadataFeedObserver> observer;  // released after the lock
    std::unique_lock lock(mutex_);
    const auto found = std::find_if(feeds_.begin(), feeds_.end(),
                                    [&](const auto& feed) { return feed->id == id; });
    if (found == feeds_.end()) {
        return;
    }
    const auto feed = *found;
    feeds_.erase(found);
    if (std::this_thread::get_id() != engineThread_) {
        changed_.wait(lock, [&] { return !feed->delivering; });
    }
    observer = std::move(feed->observer);
}

std::shared_ptr<const MetadataItem> DriveEngine::reportOf(const std::string& path,
                                                          const View& view) const {
    SimulatedItemState state;
    state.isDirectory = view.entry.isDirectory;
    const bool local = view.current.has_value();
    const bool synced = !view.entry.revision.empty() && local == view.entry.local.has_value() &&
                        (!local || view.entry.isDirectory || view.current == view.entry.local);
    state.size = local && !view.entry.isDirectory && !synced ? view.current->size : view.entry.size;
    state.creationDate = view.entry.modificationDate;
    state.contentChangeDate = view.entry.modificationDate;
    state.downloadingStatus = local || view.entry.isDirectory
                                  ? SimulatedDownloadingStatus::Current
                                  : SimulatedDownloadingStatus::NotDownloaded;
    state.downloading = view.downloading;
    state.percentDownloaded =
        local || view.entry.isDirectory ? 100.0 : (view.downloading ? view.percentDownloaded : 0.0);
    state.uploaded = synced || (view.entry.isDirectory && !view.entry.revision.empty()) ||
                     (!local && !view.entry.revision.empty());
    state.uploading = view.uploading || !state.uploaded;
    state.percentUploaded = state.uploaded ? 100.0 : view.percentUploaded;
    state.hasUnresolvedConflicts = view.entry.unresolvedConflicts > 0;
    return simulated::makeReport(localPathOf(path), state);
}

void DriveEngine::deliverFeeds() {
    struct Delivery {
        std::shared_ptr<Feed> feed;
        bool gather = false;
        std::vector<std::shared_ptr<const MetadataItem>> items;
        std::vector<std::string> removed;
    };
    std::vector<Delivery> deliveries;
    {
        std::lock_guard lock(mutex_);
        const auto covers = [&](const Feed& feed, const std::string& path) {
            const std::size_t slash = path.find('/');
            const bool documents =
                slash != std::string::npos &&
                simulated::isInDocumentsScope(std::string_view(path).substr(slash + 1));
            return documents ? feed.documents : feed.data;
        };
        for (const auto& feed : feeds_) {
            Delivery delivery;
            delivery.feed = feed;
            if (!feed->gathered) {
                delivery.gather = true;
                feed->gathered = true;
                feed->hearsChanges = account_.has_value();
                if (account_) {
                    for (const auto& [path, view] : views_) {
                        if (covers(*feed, path)) {
                            delivery.items.push_back(reportOf(path, view));
                        }
                    }
                }
            } else if (feed->hearsChanges) {
                for (const auto& path : changedPaths_) {
                    const auto found = views_.find(path);
                    if (found != views_.end() && covers(*feed, path)) {
                        delivery.items.push_back(reportOf(path, found->second));
                    }
                }
                for (const auto& path : removedPaths_) {
                    if (!views_.contains(path) && covers(*feed, path)) {
                        delivery.removed.push_back(localPathOf(path));
                    }
                }
                if (delivery.items.empty() && delivery.removed.empty()) {
                    continue;
                }
            } else {
                continue;
            }
            feed->delivering = true;
            deliveries.push_back(std::move(delivery));
        }
        changedPaths_.clear();
        removedPaths_.clear();
    }
    for (auto& delivery : deliveries) {
        auto& observer = *delivery.feed->observer;
        if (delivery.gather) {
            observer.feedDidGather(std::move(delivery.items));  // one batch, empty or not
            observer.feedDidFinishGathering();
        } else {
            observer.feedDidChange(std::move(delivery.items), std::move(delivery.removed));
        }
        std::lock_guard lock(mutex_);
        delivery.feed->delivering = false;
        changed_.notify_all();
    }
}

// The thread.

void DriveEngine::wake() {
    {
        std::lock_guard lock(mutex_);
        woken_ = true;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
}

void DriveEngine::setPaused(bool paused) {
    {
        std::unique_lock lock(mutex_);
        paused_ = paused;
        // Paused means nothing more is sent or fetched once this returns: the pass under way
        // abandons its transfer and ends first (unless this is that pass calling).
        if (paused && std::this_thread::get_id() != engineThread_) {
            changed_.wait(lock, [&] { return !inPass_; });
        }
    }
    wake();
}

bool DriveEngine::stopping() const {
    std::lock_guard lock(mutex_);
    return stopping_;
}

bool DriveEngine::stopTransfers() const {
    std::lock_guard lock(mutex_);
    return stopping_ || paused_;
}

bool DriveEngine::waitUntilIdle(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    // Two whole passes after the call began: the first may have started before it.
    const std::uint64_t target = passes_ + 2;
    passesWanted_ = std::max(passesWanted_, target);  // run back to back, not a poll apart
    woken_ = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
    return changed_.wait_for(lock, timeout, [&] {
        return passes_ >= target && !busy_ && !woken_ && changedPaths_.empty() &&
               removedPaths_.empty();
    });
}

void DriveEngine::run() {
    {
        std::lock_guard lock(mutex_);
        engineThread_ = std::this_thread::get_id();
    }
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            woken_ = false;
        }
        bool paused = false;
        {
            std::lock_guard lock(mutex_);
            paused = paused_;
            inPass_ = !paused;
        }
        if (!paused) {
            pass();
            std::lock_guard lock(mutex_);
            inPass_ = false;
            changed_.notify_all();
        }
        deliverFeeds();
        {
            std::lock_guard lock(mutex_);
            ++passes_;
            changed_.notify_all();
            if (woken_ || stopping_ || passes_ < passesWanted_) {
                continue;
            }
        }
        pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {watcher_.fd(), POLLIN, 0}};
        ::poll(fds, watcher_.fd() >= 0 ? 2 : 1, static_cast<int>(options_.pollInterval.count()));
        std::uint64_t count = 0;
        [[maybe_unused]] const auto got = ::read(wakeFd_, &count, sizeof count);
    }
}

void DriveEngine::pass() {
    std::lock_guard accountLock(accountMutex_);
    const bool reachable = options_.store->isReachable();
    bool reachabilityChanged = false;
    {
        std::lock_guard lock(mutex_);
        reachabilityChanged = reachable_.has_value() && *reachable_ != reachable;
        reachable_ = reachable;
    }
    if (reachabilityChanged) {
        MainQueue::async([owner = owner_] {
            if (const auto sender = owner.lock()) {
                NotificationCenter::defaultCenter().post(
                    QNUbiquityServiceReachabilityDidChangeNotification, sender);
            }
        });
    }
    if (!account_ || journal_ == nullptr || !reachable) {
        // Nothing can be done without the store: not idle while signed in.
        std::lock_guard lock(mutex_);
        busy_ = account_.has_value();
        return;
    }
    try {
        if (!scannedAll_) {
            recoverPendingWork();
        }
        // Local changes first: what the user did is judged on what this device knew when it
        // was done, not on what the store says since (a folder removed here takes with it only
        // the items this device had heard of).
        scanLocal(!scannedAll_);
        scannedAll_ = true;
        applyRemoteChanges();
        performDownloads();
        std::lock_guard lock(mutex_);
        busy_ = !retry_.empty() || pollFailed_ ||
                std::any_of(views_.begin(), views_.end(),
                            [](const auto& v) { return v.second.downloadRequested; });
    } catch (const std::exception& e) {
        // The journal could not record a change: stop syncing rather than go on blind.
        logger().error("The drive stopped syncing: {}", e.what());
    }
}

}  // namespace qn::drive
