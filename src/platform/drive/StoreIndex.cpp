#include "StoreIndex.h"

#include <algorithm>

namespace qn::drive {
namespace {

std::string_view parentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

bool isBelow(std::string_view path, std::string_view folder) {
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

void freeVersions(const StoreIndex::Entry& entry, std::vector<std::string>* freed) {
    for (const auto& version : entry.versions) {
        freed->push_back(version.blob);
    }
}

}  // namespace

bool StoreIndex::apply(const StoreRecord& record, std::uint64_t endOffset,
                       std::vector<std::string>* freedBlobs) {
    if (record.seq <= lastSeq_) {
        return false;
    }
    std::vector<std::string> touched{record.path};
    std::vector<std::string> freed;
    const auto below = [&](std::string_view folder) {
        std::vector<std::string> paths;
        for (auto it = entries_.upper_bound(std::string(folder) + '/');
             it != entries_.end() && isBelow(it->first, folder); ++it) {
            paths.push_back(it->first);
        }
        return paths;
    };
    switch (record.kind) {
        case StoreRecord::Kind::Item: {
            const auto existing = entries_.find(record.path);
            if (existing == entries_.end()) {
                if (!parentIsFolder(record.path)) {
                    return false;
                }
            } else if (existing->second.isDirectory != record.flag) {
                return false;
            }
            Entry entry{record.flag,   record.size, record.revision, record.blob, record.date,
                        record.device, {}};
            if (existing != entries_.end()) {
                if (existing->second.blob != record.blob && !existing->second.blob.empty()) {
                    freed.push_back(existing->second.blob);
                }
                entry.versions = std::move(existing->second.versions);
            }
            entries_[record.path] = std::move(entry);
            break;
        }
        case StoreRecord::Kind::Remove: {
            const auto existing = entries_.find(record.path);
            if (existing == entries_.end()) {
                return false;
            }
            auto paths = below(record.path);
            paths.push_back(record.path);
            for (const auto& path : paths) {
                const auto it = entries_.find(path);
                if (!it->second.blob.empty()) {
                    freed.push_back(it->second.blob);
                }
                freeVersions(it->second, &freed);
                entries_.erase(it);
            }
            touched = std::move(paths);
            break;
        }
        case StoreRecord::Kind::Move: {
            const auto existing = entries_.find(record.path);
            if (existing == entries_.end() || entries_.contains(record.target) ||
                !parentIsFolder(record.target) || isBelow(record.target, record.path)) {
                return false;
            }
            auto paths = below(record.path);
            paths.push_back(record.path);
            const std::string revision = std::to_string(record.seq);
            for (const auto& path : paths) {
                auto node = entries_.extract(path);
                node.key() = record.target + path.substr(record.path.size());
                node.mapped().revision = revision;
                touched.push_back(node.key());
                entries_.insert(std::move(node));
            }
            touched.insert(touched.end(), paths.begin(), paths.end());
            break;
        }
        case StoreRecord::Kind::Version: {
            const auto existing = entries_.find(record.path);
            if (existing == entries_.end() || existing->second.isDirectory) {
                return false;
            }
            existing->second.versions.push_back(
                {record.identifier, record.size, record.date, record.device, record.blob, false});
            break;
        }
        case StoreRecord::Kind::Resolve:
        case StoreRecord::Kind::RemoveVersion: {
            const auto existing = entries_.find(record.path);
            if (existing == entries_.end()) {
                return false;
            }
            auto& versions = existing->second.versions;
            const auto version =
                std::find_if(versions.begin(), versions.end(),
                             [&](const Version& v) { return v.identifier == record.identifier; });
            if (version == versions.end()) {
                return false;
            }
            if (record.kind == StoreRecord::Kind::Resolve) {
                version->resolved = record.flag;
            } else {
                freed.push_back(version->blob);
                versions.erase(version);
            }
            break;
        }
    }
    std::sort(touched.begin(), touched.end());
    touched.erase(std::unique(touched.begin(), touched.end()), touched.end());
    touched_.emplace_back(endOffset, std::move(touched));
    lastSeq_ = record.seq;
    endOffset_ = endOffset;
    if (freedBlobs != nullptr) {
        freedBlobs->insert(freedBlobs->end(), freed.begin(), freed.end());
    }
    return true;
}

const StoreIndex::Entry* StoreIndex::find(std::string_view path) const {
    const auto it = entries_.find(path);
    return it == entries_.end() ? nullptr : &it->second;
}

bool StoreIndex::parentIsFolder(std::string_view path) const {
    const std::string_view parent = parentOf(path);
    if (parent.empty()) {
        return true;
    }
    const Entry* entry = find(parent);
    return entry != nullptr && entry->isDirectory;
}

bool StoreIndex::hasItemsBelow(std::string_view path) const {
    const auto next = entries_.upper_bound(std::string(path) + '/');
    return next != entries_.end() && isBelow(next->first, path);
}

DriveStore::Item StoreIndex::item(const std::string& path, const Entry& entry) const {
    const auto unresolved = std::count_if(entry.versions.begin(), entry.versions.end(),
                                          [](const Version& v) { return !v.resolved; });
    return {path,
            entry.isDirectory,
            entry.size,
            entry.revision,
            entry.date,
            entry.device,
            static_cast<std::uint32_t>(unresolved)};
}

std::optional<std::vector<std::string>> StoreIndex::pathsChangedAfter(std::uint64_t offset) const {
    const auto first = std::upper_bound(
        touched_.begin(), touched_.end(), offset,
        [](std::uint64_t value, const auto& entry) { return value < entry.first; });
    if (offset != 0 && (first == touched_.begin() || std::prev(first)->first != offset)) {
        return std::nullopt;
    }
    std::vector<std::string> paths;
    for (auto it = first; it != touched_.end(); ++it) {
        paths.insert(paths.end(), it->second.begin(), it->second.end());
    }
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    return paths;
}

}  // namespace qn::drive
