#include "DriveWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qn::drive {

DriveWatcher::DriveWatcher() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

DriveWatcher::~DriveWatcher() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool DriveWatcher::watch(const std::string& path) {
    if (fd_ < 0) {
        return false;
    }
    // Closing a written file is the moment its contents are complete; attribute changes catch
    // a modification time set afterwards (a copy that keeps dates).
    const std::uint32_t mask = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                               IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                               IN_ONLYDIR | IN_DONT_FOLLOW;
    const int wd = ::inotify_add_watch(fd_, path.c_str(), mask);
    if (wd < 0) {
        return false;
    }
    folders_[wd] = path;
    watches_[path] = wd;
    return true;
}

void DriveWatcher::clear() {
    for (const auto& [wd, path] : folders_) {
        ::inotify_rm_watch(fd_, wd);
    }
    folders_.clear();
    watches_.clear();
}

DriveWatcher::Events DriveWatcher::read() {
    Events events;
    if (fd_ < 0) {
        return events;
    }
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        const ssize_t got = ::read(fd_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return events;
        }
        for (ssize_t offset = 0; offset < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                events.overflowed = true;
                continue;
            }
            const auto folder = folders_.find(event->wd);
            if (folder == folders_.end()) {
                continue;
            }
            if ((event->mask & IN_IGNORED) != 0) {
                watches_.erase(folder->second);
                folders_.erase(folder);
                continue;
            }
            if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
                const std::size_t slash = folder->second.rfind('/');
                events.changedFolders.insert(folder->second.substr(0, slash));
                continue;
            }
            events.changedFolders.insert(folder->second);
            if ((event->mask & IN_ISDIR) != 0 && (event->mask & (IN_CREATE | IN_MOVED_TO)) != 0 &&
                event->len > 0) {
                events.newFolders.insert(folder->second + "/" + event->name);
            }
        }
    }
}

}  // namespace qn::drive
