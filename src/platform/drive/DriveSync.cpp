// One pass of the drive's engine: the store's changes are applied, the containers are scanned
// for local changes, which are uploaded, and the downloads asked for are made. Runs on the
// engine thread with `accountMutex_` held; `mutex_` is taken only around the views.

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "../FileSystemCalls.h"
#include "DriveEngine.h"
#include "qn/Logger.h"

namespace qn::drive {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view kTemporaryPrefix = ".qnicloud-";

Logger& logger() {
    return Logger::named("drive");
}

std::string randomSuffix() {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    return fmt::format("{:016x}", random());
}

LocalIdentity identityOf(const struct stat& status) {
    if (S_ISDIR(status.st_mode)) {
        return {static_cast<std::uint64_t>(status.st_ino), 0, 0};
    }
    return {
        static_cast<std::uint64_t>(status.st_ino), static_cast<std::uint64_t>(status.st_size),
        static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec};
}

Date dateOf(const LocalIdentity& identity) {
    timespec time{};
    time.tv_sec = identity.modifiedNanoseconds / 1'000'000'000;
    time.tv_nsec = identity.modifiedNanoseconds % 1'000'000'000;
    if (time.tv_nsec < 0) {
        time.tv_nsec += 1'000'000'000;
        time.tv_sec -= 1;
    }
    return Date::fromTimespec(time);
}

// What the store says of an item, as the journal keeps it.
void adopt(JournalEntry& entry, const DriveStore::Item& item) {
    entry.isDirectory = item.isDirectory;
    entry.revision = item.revision;
    entry.size = item.size;
    entry.modificationDate = item.modificationDate;
    entry.device = item.device;
    entry.unresolvedConflicts = item.unresolvedConflicts;
}

bool isBelow(std::string_view path, std::string_view folder) {
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

}  // namespace

std::optional<LocalIdentity> DriveEngine::identityOfLocal(const std::string& storePath,
                                                          bool* isDirectory) {
    struct stat status {};
    if (::lstat(localPathOf(storePath).c_str(), &status) != 0 ||
        !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
        return std::nullopt;
    }
    *isDirectory = S_ISDIR(status.st_mode);
    return identityOf(status);
}

void DriveEngine::record(const std::string& path) {
    std::optional<JournalEntry> entry;
    {
        std::lock_guard lock(mutex_);
        const auto found = views_.find(path);
        if (found == views_.end()) {
            return;
        }
        changedPaths_.insert(path);
        if (!found->second.entry.revision.empty()) {
            entry = found->second.entry;
        }
    }
    if (entry) {
        journal_->put(*entry);
    }
}

void DriveEngine::forget(const std::string& path) {
    journal_->remove(path);
    std::lock_guard lock(mutex_);
    for (auto it = views_.lower_bound(path);
         it != views_.end() && (it->first == path || isBelow(it->first, path));) {
        removedPaths_.insert(it->first);
        changedPaths_.erase(it->first);
        it = views_.erase(it);
    }
}

void DriveEngine::watchTree(const std::string& localFolder) {
    watcher_.watch(localFolder);
}

// Recovery: work recorded as pending before a crash is either found done or left to redo.

void DriveEngine::recoverPendingWork() {
    std::vector<JournalEntry> pending;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [path, view] : views_) {
            if (view.entry.pending != Pending::None) {
                pending.push_back(view.entry);
            }
        }
    }
    for (auto& entry : pending) {
        bool isDirectory = false;
        const auto local = identityOfLocal(entry.path, &isDirectory);
        if (entry.pending == Pending::Upload && local) {
            // The store took the upload if it holds a newer revision made by this device from a
            // file like the one on the disk.
            const auto item = options_.store->itemAtPath(*account_, entry.path, nullptr);
            if (item && item->revision != entry.pendingRevision &&
                item->device == options_.deviceName && item->size == local->size &&
                item->modificationDate == dateOf(*local)) {
                adopt(entry, *item);
                entry.local = local;
            }
        } else if (entry.pending == Pending::Download && local && !entry.local &&
                   local->size == entry.size && dateOf(*local) == entry.modificationDate) {
            entry.local = local;  // renamed into place before the crash
        }
        if (entry.pending == Pending::Upload || entry.local) {
            entry.pending = Pending::None;
            entry.pendingRevision.clear();
        }
        {
            std::lock_guard lock(mutex_);
            auto& view = views_[entry.path];
            view.entry = entry;
            view.current = entry.local;
            view.downloadRequested = entry.pending == Pending::Download;
        }
        record(entry.path);
    }
}

// The store's changes.

void DriveEngine::applyRemoteChanges() {
    Error error;
    const auto changes = options_.store->changesSince(*account_, token_, &error);
    if (!changes) {
        logger().warn("The drive could not ask the store for changes: {}", error);
        pollFailed_ = true;
        return;
    }
    pollFailed_ = false;
    if (changes->reset) {
        std::vector<std::string> gone;
        {
            std::lock_guard lock(mutex_);
            std::set<std::string_view> listed;
            for (const auto& item : changes->items) {
                listed.insert(item.path);
            }
            for (const auto& [path, view] : views_) {
                if (!view.entry.revision.empty() && !listed.contains(path)) {
                    gone.push_back(path);
                }
            }
        }
        for (auto it = gone.rbegin(); it != gone.rend(); ++it) {
            applyRemoteRemoval(*it);
        }
    }
    for (const auto& path : changes->removedPaths) {
        applyRemoteRemoval(path);
    }
    for (const auto& item : changes->items) {
        applyRemoteItem(item);
    }
    if (changes->token != token_) {
        token_ = changes->token;
        journal_->setValue("token", token_);
    }
}

void DriveEngine::applyRemoteItem(const DriveStore::Item& item) {
    std::optional<View> known;
    {
        std::lock_guard lock(mutex_);
        if (const auto found = views_.find(item.path); found != views_.end()) {
            known = found->second;
        }
    }
    if (known && known->entry.revision == item.revision) {
        if (known->entry.unresolvedConflicts != item.unresolvedConflicts ||
            known->entry.device != item.device) {
            {
                std::lock_guard lock(mutex_);
                adopt(views_[item.path].entry, item);
            }
            record(item.path);
        }
        return;
    }
    const bool hadLocal = known && known->entry.local && known->current == known->entry.local;
    bool isDirectory = false;
    const auto local = identityOfLocal(item.path, &isDirectory);
    if (item.isDirectory) {
        // Folders are always on the disk.
        std::error_code ignored;
        fs::create_directories(localPathOf(item.path), ignored);
        const auto made = identityOfLocal(item.path, &isDirectory);
        {
            std::lock_guard lock(mutex_);
            View& view = views_[item.path];
            adopt(view.entry, item);
            view.entry.path = item.path;
            view.entry.local = isDirectory ? made : std::nullopt;
            view.current = view.entry.local;
        }
        watchTree(localPathOf(item.path));
        record(item.path);
        return;
    }
    if (!known || known->entry.revision.empty()) {
        // New to this device: metadata only. A local file of the same name made meanwhile is
        // another item; uploading it will keep both.
        std::lock_guard lock(mutex_);
        View& view = views_[item.path];
        adopt(view.entry, item);
        view.entry.path = item.path;
        view.entry.local.reset();
        view.current = local;
    } else if (hadLocal) {
        // A downloaded copy follows the store: the new contents replace it when it is unchanged.
        std::lock_guard lock(mutex_);
        View& view = views_[item.path];
        view.downloadRequested = true;
        view.entry.pending = Pending::Download;
        view.entry.pendingRevision = item.revision;
        busy_ = true;
    } else if (!known->entry.local) {
        std::lock_guard lock(mutex_);
        adopt(views_[item.path].entry, item);
    }
    // Otherwise the local copy has changes: its upload meets the new revision and becomes a
    // conflict version.
    record(item.path);
}

void DriveEngine::applyRemoteRemoval(const std::string& path) {
    std::vector<std::pair<std::string, View>> subtree;
    {
        std::lock_guard lock(mutex_);
        for (auto it = views_.lower_bound(path);
             it != views_.end() && (it->first == path || isBelow(it->first, path)); ++it) {
            subtree.emplace_back(it->first, it->second);
        }
    }
    if (subtree.empty()) {
        return;
    }
    // Deepest first: files that were synced go, folders go when emptied; anything with local
    // changes stays and is uploaded again as a new item.
    for (auto it = subtree.rbegin(); it != subtree.rend(); ++it) {
        const auto& [itemPath, view] = *it;
        bool isDirectory = false;
        const auto local = identityOfLocal(itemPath, &isDirectory);
        const std::string localPath = localPathOf(itemPath);
        if (isDirectory && local) {
            ::rmdir(localPath.c_str());  // fails, as it should, when something is left in it
        } else if (local && local == view.entry.local) {
            ::unlink(localPath.c_str());
        }
    }
    forget(path);
}

// The local side.

void DriveEngine::scanLocal(bool everything) {
    std::vector<std::string> appeared;
    std::vector<std::string> vanished;
    const auto events = watcher_.read();
    std::set<std::string> folders;  // store paths of the folders to scan
    bool recursive = everything || events.overflowed;
    if (recursive) {
        folders.insert("");
    } else {
        const auto storeFolder = [&](const std::string& local) -> std::optional<std::string> {
            if (local == driveDirectory_) {
                return std::string();
            }
            return storePathOf(URL::fileURLWithPath(local));
        };
        for (const auto& local : events.changedFolders) {
            if (const auto path = storeFolder(local)) {
                folders.insert(*path);
            }
        }
        for (const auto& local : events.newFolders) {
            if (const auto path = storeFolder(local)) {
                scanFolder(*path, true, &appeared, nullptr);
            }
        }
    }
    // Items whose sync failed are looked at again with their folders.
    for (const auto& path : std::exchange(retry_, {})) {
        const std::size_t slash = path.rfind('/');
        folders.insert(slash == std::string::npos ? std::string() : path.substr(0, slash));
    }
    std::set<std::string> scanned;
    for (const auto& folder : folders) {
        scanFolder(folder, recursive, &appeared, &scanned);
    }
    // Local copies gone from the folders scanned.
    {
        std::lock_guard lock(mutex_);
        for (auto& [path, view] : views_) {
            const std::size_t slash = path.rfind('/');
            const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
            if (!scanned.contains(parent) || !view.current) {
                continue;
            }
            bool isDirectory = false;
            if (!identityOfLocal(path, &isDirectory)) {
                view.current.reset();
                vanished.push_back(path);
            }
        }
        // A folder that vanished took everything this device knew in it, downloaded or not.
        for (const auto& gone : std::vector<std::string>(vanished)) {
            for (auto it = views_.upper_bound(gone + "/");
                 it != views_.end() && isBelow(it->first, gone); ++it) {
                it->second.current.reset();
                vanished.push_back(it->first);
                insideRemovedFolder_.insert(it->first);
            }
        }
    }
    handleLocalChanges(appeared, vanished);
    insideRemovedFolder_.clear();
}

void DriveEngine::scanFolder(const std::string& storeFolder, bool recursive,
                             std::vector<std::string>* appeared, std::set<std::string>* scanned) {
    const std::string local = storeFolder.empty() ? driveDirectory_ : localPathOf(storeFolder);
    DIR* directory = ::opendir(local.c_str());
    if (directory == nullptr) {
        return;
    }
    if (scanned != nullptr) {
        scanned->insert(storeFolder);
    }
    watchTree(local);
    std::vector<std::string> folders;
    while (const dirent* found = ::readdir(directory)) {
        const std::string_view name = found->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        if (name.starts_with(kTemporaryPrefix)) {
            // Left by a download that did not finish: only this thread downloads, so it is
            // none running now.
            ::unlink((local + "/" + std::string(name)).c_str());
            continue;
        }
        if (name.starts_with(kStagingNamePrefix)) {
            continue;  // another writer's item on its way in: its rename is what counts
        }
        std::string path;
        if (storeFolder.empty()) {
            const auto container = containerOfFolder(name);
            if (!container) {
                continue;
            }
            path = *container;
        } else {
            path = storeFolder + "/" + std::string(name);
        }
        if (DriveStore::validatePath(path)) {
            logger().warn("The drive cannot keep \"{}\" in the store; it stays on this device.",
                          local + "/" + std::string(name));
            continue;
        }
        bool isDirectory = false;
        const auto identity = identityOfLocal(path, &isDirectory);
        if (!identity) {
            continue;  // links and special files are not synced
        }
        {
            std::lock_guard lock(mutex_);
            auto [it, made] = views_.try_emplace(path);
            View& view = it->second;
            if (made) {
                view.entry.path = path;
                view.entry.isDirectory = isDirectory;
            }
            if (made || view.current != identity || view.entry.revision.empty() ||
                (!isDirectory && view.entry.local != identity)) {
                appeared->push_back(path);
            }
            view.current = identity;
        }
        if (isDirectory && recursive) {
            folders.push_back(path);
        }
    }
    ::closedir(directory);
    for (const auto& folder : folders) {
        scanFolder(folder, true, appeared, scanned);
    }
}

void DriveEngine::handleLocalChanges(const std::vector<std::string>& appeared,
                                     const std::vector<std::string>& vanished) {
    std::vector<std::string> toUpload(appeared.begin(), appeared.end());
    std::sort(toUpload.begin(), toUpload.end());
    toUpload.erase(std::unique(toUpload.begin(), toUpload.end()), toUpload.end());
    std::vector<std::string> toRemove(vanished.begin(), vanished.end());
    // A file that vanished in one place and appeared in another with its inode is a move.
    for (auto gone = toRemove.begin(); gone != toRemove.end();) {
        std::optional<std::string> target;
        {
            std::lock_guard lock(mutex_);
            const View& old = views_[*gone];
            if (old.entry.local && !old.entry.revision.empty()) {
                for (const auto& path : toUpload) {
                    const View& candidate = views_[path];
                    if (candidate.entry.revision.empty() && candidate.current &&
                        candidate.current->inode == old.entry.local->inode &&
                        candidate.entry.isDirectory == old.entry.isDirectory) {
                        target = path;
                        break;
                    }
                }
            }
        }
        if (target && moveRemotely(*gone, *target)) {
            toUpload.erase(std::find(toUpload.begin(), toUpload.end(), *target));
            gone = toRemove.erase(gone);
        } else {
            ++gone;
        }
    }
    for (const auto& path : toUpload) {  // parents before what they hold
        bool isDirectory = false;
        if (!identityOfLocal(path, &isDirectory)) {
            continue;
        }
        if (isDirectory) {
            uploadFolder(path);
        } else {
            upload(path);
        }
    }
    std::sort(toRemove.begin(), toRemove.end());
    for (auto it = toRemove.rbegin(); it != toRemove.rend(); ++it) {  // contents first
        removeRemotely(*it);
    }
}

void DriveEngine::uploadFolder(const std::string& path) {
    View view;
    {
        std::lock_guard lock(mutex_);
        view = views_[path];
    }
    if (!view.entry.revision.empty() && view.entry.local == view.current) {
        return;
    }
    Error error;
    const auto item = options_.store->makeDirectory(
        *account_, path, DriveStore::Condition::absent(), Date::now(), options_.deviceName, &error);
    if (!item) {
        logger().warn("The drive could not make the folder \"{}\" in the store: {}", path, error);
        std::lock_guard lock(mutex_);
        views_[path].current.reset();
        retry_.insert(path);
        return;
    }
    {
        std::lock_guard lock(mutex_);
        View& now = views_[path];
        now.entry.path = path;
        now.entry.isDirectory = true;
        adopt(now.entry, *item);
        now.entry.local = now.current;
    }
    record(path);
}

void DriveEngine::upload(const std::string& path) {
    const std::string localPath = localPathOf(path);
    const int fd = ::open(localPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return;  // gone again; the next scan says what became of it
    }
    struct stat status {};
    ::fstat(fd, &status);
    const LocalIdentity identity = identityOf(status);
    View view;
    {
        std::lock_guard lock(mutex_);
        View& known = views_[path];
        known.entry.path = path;
        known.current = identity;
        if (!known.entry.revision.empty() && known.entry.local == identity) {
            ::close(fd);
            return;  // the store has these very contents already
        }
        known.uploading = true;
        known.percentUploaded = 0;
        view = known;
    }
    // Recorded first, also for an item new to the store, so that a restart can tell whether
    // the store took it.
    {
        JournalEntry pending = view.entry;
        pending.isDirectory = false;
        pending.pending = Pending::Upload;
        pending.pendingRevision = view.entry.revision;
        journal_->put(pending);
    }
    record(path);
    deliverFeeds();
    // A file never synced here meets any item the store has at its place as a conflict.
    const auto condition = view.entry.revision.empty() || !view.entry.local
                               ? DriveStore::Condition::absent()
                               : DriveStore::Condition::atRevision(view.entry.revision);
    const auto progress = [&](std::uint64_t done, std::uint64_t total) {
        if (done == total) {
            // About to be committed: only what is still the file's contents may be.
            struct stat now {};
            return ::stat(localPath.c_str(), &now) == 0 && identityOf(now) == identity;
        }
        {
            std::lock_guard lock(mutex_);
            views_[path].percentUploaded = total == 0 ? 100.0 : 100.0 * done / total;
            changedPaths_.insert(path);
        }
        deliverFeeds();
        return !stopTransfers();  // a stopping or paused engine sends the rest next time
    };
    Error error;
    const auto item = options_.store->upload(*account_, path, fd, condition, dateOf(identity),
                                             options_.deviceName, progress, &error);
    {
        std::lock_guard lock(mutex_);
        views_[path].uploading = false;
    }
    if (item) {
        {
            std::lock_guard lock(mutex_);
            View& now = views_[path];
            adopt(now.entry, *item);
            now.entry.local = identity;
            now.entry.pending = Pending::None;
            now.entry.pendingRevision.clear();
        }
        record(path);
    } else if (error.code() == DriveStoreErrorRevisionMismatch) {
        keepAsConflict(path, fd, identity);
    } else {
        // Changed while it was read, a parent not in the store yet, the store gone: again later.
        if (error.code() != DriveStoreErrorCancelled) {
            logger().warn("The drive could not upload \"{}\": {}", path, error);
        }
        std::lock_guard lock(mutex_);
        views_[path].current.reset();  // seen as changed by the next scan
        retry_.insert(path);
    }
    ::close(fd);
}

void DriveEngine::keepAsConflict(const std::string& path, int fd, const LocalIdentity& identity) {
    ::lseek(fd, 0, SEEK_SET);
    Error error;
    const auto version = options_.store->addConflictVersion(*account_, path, fd, dateOf(identity),
                                                            options_.deviceName, &error);
    if (!version) {
        if (error.code() == DriveStoreErrorNotFound) {
            // The store's item went away meanwhile: this one takes its place as a new item.
            std::lock_guard lock(mutex_);
            View& view = views_[path];
            view.entry.revision.clear();
            view.current.reset();
            retry_.insert(path);
            return;
        }
        logger().warn("The drive could not keep the edit of \"{}\" as a version: {}", path, error);
        std::lock_guard lock(mutex_);
        views_[path].current.reset();
        retry_.insert(path);
        return;
    }
    logger().info(
        "\"{}\" was changed on this device and in the store; this device's edit is kept "
        "as conflict version {}.",
        path, version->identifier);
    // The edit is safe in the store: the local copy becomes the store's current revision.
    const auto item = options_.store->itemAtPath(*account_, path, nullptr);
    {
        std::lock_guard lock(mutex_);
        View& view = views_[path];
        if (item) {
            adopt(view.entry, *item);
        }
        view.entry.local = identity;  // replaced only while it is still this very file
        view.entry.pending = Pending::None;
        view.downloadRequested = true;
    }
    record(path);
    download(path);
}

bool DriveEngine::moveRemotely(const std::string& from, const std::string& to) {
    View old;
    {
        std::lock_guard lock(mutex_);
        old = views_[from];
    }
    Error error;
    const auto item = options_.store->move(
        *account_, from, to, DriveStore::Condition::atRevision(old.entry.revision), &error);
    if (!item) {
        logger().info(
            "The drive could not move \"{}\" to \"{}\" in the store ({}); it uploads "
            "the new place instead.",
            from, to, error);
        return false;
    }
    journal_->move(from, to);
    std::vector<std::string> moved;
    {
        std::lock_guard lock(mutex_);
        const View target = views_[to];
        views_.erase(to);
        for (auto it = views_.lower_bound(from);
             it != views_.end() && (it->first == from || isBelow(it->first, from));) {
            auto node = views_.extract(it++);
            const std::string newPath = to + node.key().substr(from.size());
            node.key() = newPath;
            node.mapped().entry.path = newPath;
            // The scan met the moved items in their new place as new ones: they are these.
            if (const auto met = views_.find(newPath); met != views_.end()) {
                node.mapped().current = met->second.current;
                views_.erase(met);
            }
            removedPaths_.insert(from + newPath.substr(to.size()));
            moved.push_back(newPath);
            views_.insert(std::move(node));
        }
        View& now = views_[to];
        now.entry.revision = item->revision;
        now.current = target.current;
        now.entry.local = target.current;
    }
    // Everything moved has a new revision; ask for it, so that nothing is fetched again.
    for (const auto& path : moved) {
        if (const auto current = options_.store->itemAtPath(*account_, path, nullptr)) {
            std::lock_guard lock(mutex_);
            views_[path].entry.revision = current->revision;
        }
        record(path);
    }
    return true;
}

void DriveEngine::removeRemotely(const std::string& path) {
    View view;
    {
        std::lock_guard lock(mutex_);
        const auto found = views_.find(path);
        if (found == views_.end()) {
            return;
        }
        view = found->second;
    }
    if (view.entry.revision.empty()) {
        forget(path);  // never in the store
        return;
    }
    if (!view.entry.local && !insideRemovedFolder_.contains(path)) {
        return;  // never downloaded here: nothing of it was removed
    }
    Error error;
    if (options_.store->remove(*account_, path,
                               DriveStore::Condition::atRevision(view.entry.revision), &error) ||
        error.code() == DriveStoreErrorNotFound) {
        forget(path);
        return;
    }
    if (error.code() == DriveStoreErrorNotEmpty) {
        // Another device put something in it since this device last looked: the folder stays,
        // back on the disk, with what it holds.
        std::error_code ignored;
        fs::create_directories(localPathOf(path), ignored);
        bool isDirectory = false;
        const auto identity = identityOfLocal(path, &isDirectory);
        {
            std::lock_guard lock(mutex_);
            View& now = views_[path];
            now.current = identity;
            now.entry.local = identity;
        }
        watchTree(localPathOf(path));
        record(path);
        return;
    }
    if (error.code() == DriveStoreErrorRevisionMismatch) {
        // Changed elsewhere since: that edit stays, only not on this device.
        {
            std::lock_guard lock(mutex_);
            views_[path].entry.local.reset();
        }
        record(path);
        return;
    }
    logger().warn("The drive could not remove \"{}\" from the store: {}", path, error);
    std::lock_guard lock(mutex_);
    views_[path].current = view.entry.local;  // missed again by the next scan
    retry_.insert(path);
}

// Downloads.

void DriveEngine::performDownloads() {
    std::vector<std::string> wanted;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [path, view] : views_) {
            if (view.downloadRequested) {
                wanted.push_back(path);
            }
        }
    }
    for (const auto& path : wanted) {
        download(path);
    }
}

bool DriveEngine::download(const std::string& path) {
    View view;
    {
        std::lock_guard lock(mutex_);
        const auto found = views_.find(path);
        if (found == views_.end()) {
            return false;
        }
        view = found->second;
    }
    std::string revision =
        view.entry.pending == Pending::Download && !view.entry.pendingRevision.empty()
            ? view.entry.pendingRevision
            : view.entry.revision;
    auto item = options_.store->itemAtPath(*account_, path, nullptr);
    if (!item || item->isDirectory) {
        std::lock_guard lock(mutex_);
        views_[path].downloadRequested = false;
        return false;
    }
    revision = item->revision;
    {
        JournalEntry pending = view.entry;
        pending.pending = Pending::Download;
        pending.pendingRevision = revision;
        journal_->put(pending);
    }
    const std::string localPath = localPathOf(path);
    const std::string folder = localPath.substr(0, localPath.rfind('/'));
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    const std::string temporary =
        folder + "/" + std::string(kTemporaryPrefix) + "download-" + randomSuffix();
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        logger().warn("The drive could not download \"{}\": {}", path, std::strerror(errno));
        std::lock_guard lock(mutex_);
        busy_ = true;
        return false;
    }
    {
        std::lock_guard lock(mutex_);
        View& now = views_[path];
        now.downloading = true;
        now.percentDownloaded = 0;
        changedPaths_.insert(path);
    }
    deliverFeeds();
    const auto progress = [&](std::uint64_t done, std::uint64_t total) {
        {
            std::lock_guard lock(mutex_);
            views_[path].percentDownloaded = total == 0 ? 100.0 : 100.0 * done / total;
            changedPaths_.insert(path);
        }
        deliverFeeds();
        // A stopping engine abandons the download, as it forgets the ones not started: the host
        // asks again when it wants the file. A paused one fetches it when it goes on.
        return !stopTransfers();
    };
    Error error;
    bool fetched = options_.store->download(*account_, path, revision, fd, progress, &error);
    if (fetched) {
        const timespec times[2] = {{0, UTIME_OMIT}, item->modificationDate.toTimespec()};
        fetched = ::futimens(fd, times) == 0;
    }
    ::close(fd);
    bool isDirectory = false;
    const auto local = identityOfLocal(path, &isDirectory);
    // A local file made or changed meanwhile is not overwritten: its upload will keep both.
    const bool free = !local || (!isDirectory && local == view.entry.local);
    if (fetched && free && ::rename(temporary.c_str(), localPath.c_str()) == 0) {
        const auto placed = identityOfLocal(path, &isDirectory);
        {
            std::lock_guard lock(mutex_);
            View& now = views_[path];
            adopt(now.entry, *item);
            now.entry.local = placed;
            now.entry.pending = Pending::None;
            now.entry.pendingRevision.clear();
            now.current = placed;
            now.downloading = false;
            now.downloadRequested = false;
            now.percentDownloaded = 100;
        }
        record(path);
        return true;
    }
    ::unlink(temporary.c_str());
    {
        std::lock_guard lock(mutex_);
        View& now = views_[path];
        now.downloading = false;
        if (!free) {
            now.downloadRequested = false;
            now.entry.pending = Pending::None;
        } else {
            busy_ = true;  // tried again in the next pass
        }
        changedPaths_.insert(path);
    }
    if (!fetched && error.code() != DriveStoreErrorCancelled) {
        logger().warn("The drive could not download \"{}\": {}", path, error);
    }
    record(path);
    return false;
}

}  // namespace qn::drive
