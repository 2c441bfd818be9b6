#pragma once

// Watches the folders of a device's drive with inotify and tells which of them changed since it
// was last asked. Private to the drive; used by the engine thread only.

#include <set>
#include <string>
#include <unordered_map>

namespace qn::drive {

class DriveWatcher {
public:
    DriveWatcher();
    ~DriveWatcher();
    DriveWatcher(const DriveWatcher&) = delete;
    DriveWatcher& operator=(const DriveWatcher&) = delete;

    /// The descriptor that becomes readable when events wait; -1 when inotify is unavailable
    /// (the engine then relies on its periodic scans).
    int fd() const { return fd_; }

    /// Watches the folder at `path` (not what is below it). False when it cannot be watched.
    bool watch(const std::string& path);
    /// Forgets every watch.
    void clear();

    struct Events {
        /// Folders in which something was created, written, moved or removed.
        std::set<std::string> changedFolders;
        /// Folders created or moved in, to be scanned with everything below them.
        std::set<std::string> newFolders;
        /// The kernel dropped events: everything must be scanned.
        bool overflowed = false;
    };
    /// Reads the events waiting, without blocking.
    Events read();

private:
    int fd_;
    std::unordered_map<int, std::string> folders_;  // by watch descriptor
    std::unordered_map<std::string, int> watches_;  // by folder
};

}  // namespace qn::drive
