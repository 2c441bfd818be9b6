// The metadata cache driven by a sequence of operations decoded from the input (create a file
// or a folder, remove, move, copy, walk, enumerate) on names that collide by letter case and by
// composition, checked after every step against a plain model: a map from the case-folded,
// composed path to whether the item is a folder. Moves the cache keeps quirks for on purpose
// (across folders with a new name and something inside) are not made.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "QNiCloud/QNiCloudCache.h"
#include "QNiCloud/QNiCloudDirectoryEnumerator.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/util/PathNormalization.h"

namespace {

constexpr std::string_view kBase = "/base";
// Spellings that fold together ("a"/"A", the three "é"), and some that do not.
constexpr const char* kNames[] = {"a",         "A",        "b",     "\xc3\xa9",
                                  "e\xcc\x81", "\xc3\x89", "c.txt", "C.TXT"};

struct Item {
    std::string spelling;  // relative, composed, as first created
    bool isDirectory = false;
};
using Model = std::map<std::string, Item>;  // by case-folded, composed relative path

std::string keyOf(std::string_view relative) {
    return qn::lowercaseNFC(qn::composedNFC(relative));
}
std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}
bool isBelow(const std::string& key, const std::string& folderKey) {
    return key.size() > folderKey.size() && key.starts_with(folderKey) &&
           key[folderKey.size()] == '/';
}

constexpr std::uint8_t kOperations = 7;

class Driver {
public:
    Driver() : cache_(QNiCloudCache::cacheWithCachedDirectoryPath(kBase)) {
        cache_->createEntryAtRelativePath("/", nullptr);
    }

    void step(std::uint8_t op, const std::string& path, const std::string& other) {
        const std::string key = keyOf(path);
        switch (op % kOperations) {
            case 0:
            case 1:
                create(path, op % 5 == 1);
                break;
            case 2:
                if (model_.contains(key)) {
                    cache_->removeEntryAtPath(std::string(kBase) + path);
                    erase(key);
                }
                break;
            case 3:
                move(path, other);
                break;
            case 4:
                copy(path, other);
                break;
            case 5:  // the folder holding the path: the top is walked too
                walk(parentOf(path));
                break;
            case 6:
                enumerate(parentOf(path), (op / kOperations) % 2 == 1);
                break;
        }
        check(path, other);
    }
    // Every item of the model is found in the cache, with its kind.
    void checkAll() const {
        for (const auto& [key, item] : model_) {
            checkItem(key, item);
        }
    }

private:
    void create(const std::string& path, bool folder) {
        cache_->createEntryAtPath(std::string(kBase) + path,
                                  folder ? nullptr : std::make_shared<QNiCloudMetadataItem>());
        const std::string composed = qn::composedNFC(path);
        for (std::string up = parentOf(composed); up != "/"; up = parentOf(up)) {
            model_.try_emplace(keyOf(up), Item{up, true});
        }
        auto [it, made] = model_.try_emplace(keyOf(path), Item{composed, folder});
        it->second.isDirectory = folder;
    }
    void erase(const std::string& key) {
        for (auto it = model_.begin(); it != model_.end();) {
            it = it->first == key || isBelow(it->first, key) ? model_.erase(it) : std::next(it);
        }
    }
    // The items of the subtree at `key`, re-spelled under `to`.
    Model subtree(const std::string& key, const std::string& to) const {
        Model moved;
        const std::size_t length = model_.at(key).spelling.size();
        for (const auto& [k, item] : model_) {
            if (k == key || isBelow(k, key)) {
                const std::string spelling = qn::composedNFC(to) + item.spelling.substr(length);
                moved[keyOf(spelling)] = Item{spelling, item.isDirectory};
            }
        }
        return moved;
    }
    bool fits(const std::string& from, const std::string& to) const {
        const std::string fromKey = keyOf(from), toKey = keyOf(to), parent = parentOf(to);
        return model_.contains(fromKey) && !model_.contains(toKey) && toKey != fromKey &&
               !isBelow(toKey, fromKey) && (parent == "/" || model_.contains(keyOf(parent)));
    }
    void move(const std::string& from, const std::string& to) {
        if (!fits(from, to)) {
            return;
        }
        const std::string fromKey = keyOf(from);
        const bool samePlace = keyOf(parentOf(from)) == keyOf(parentOf(to));
        const bool hasInside = std::any_of(model_.begin(), model_.end(), [&](const auto& entry) {
            return isBelow(entry.first, fromKey);
        });
        const std::string& spelling = model_.at(fromKey).spelling;
        const bool sameName = spelling.substr(spelling.rfind('/')) == to.substr(to.rfind('/'));
        if (!samePlace && hasInside && !sameName) {
            return;  // the old paths inside stay indexed, as the cache means them to
        }
        cache_->moveEntryAtPath(std::string(kBase) + from, std::string(kBase) + to);
        Model moved = subtree(fromKey, to);
        erase(fromKey);
        model_.merge(moved);
    }
    void copy(const std::string& from, const std::string& to) {
        if (!fits(from, to)) {
            return;
        }
        cache_->copyEntryAtPath(std::string(kBase) + from, std::string(kBase) + to);
        Model copied = subtree(keyOf(from), to);
        model_.merge(copied);
    }
    // The keys the model has below the folder at `path` ("/" for the top), all or children only.
    std::multiset<std::string> modelBelow(const std::string& path, bool childrenOnly) const {
        const std::string key = path == "/" ? std::string() : keyOf(path);
        std::multiset<std::string> below;
        for (const auto& [k, item] : model_) {
            if ((key.empty() || isBelow(k, key)) &&
                (!childrenOnly || k.find('/', key.size() + 1) == std::string::npos)) {
                below.insert(k.substr(key.size() + 1));
            }
        }
        return below;
    }
    bool walkable(const std::string& path) const {
        return path == "/" || model_.contains(keyOf(path));
    }
    void walk(const std::string& path) {
        if (!walkable(path)) {
            return;
        }
        std::multiset<std::string> walked;
        for (const auto& subpath : cache_->allSubpathsOfEntryAtPath(std::string(kBase) + path)) {
            walked.insert(keyOf(subpath));
        }
        QN_FUZZ_CHECK(walked == modelBelow(path, false), path, std::to_string(walked.size()));
        std::size_t entries = 0;
        cache_->enumerateSubentriesOfEntryAtPath(std::string(kBase) + path,
                                                 [&](const auto&) { return ++entries > 0; });
        QN_FUZZ_CHECK(entries == walked.size(), path, std::to_string(entries));
    }
    void enumerate(const std::string& path, bool childrenOnly) {
        if (!walkable(path)) {
            return;
        }
        QNiCloudDirectoryEnumerator enumerator(cache_->entryForPath(std::string(kBase) + path),
                                               childrenOnly ? 1 : 0);
        std::multiset<std::string> listed;
        for (qn::Value next = enumerator.nextObject(); !next.isNull();
             next = enumerator.nextObject()) {
            listed.insert(keyOf(*next.stringValue()));
        }
        QN_FUZZ_CHECK(listed == modelBelow(path, childrenOnly), path,
                      std::to_string(listed.size()));
    }
    void checkItem(const std::string& key, const Item& item) const {
        const auto entry = cache_->entryForPath(std::string(kBase) + item.spelling);
        QN_FUZZ_CHECK(entry != nullptr, key, item.spelling);
        QN_FUZZ_CHECK(entry->isDirectory() == item.isDirectory, key, item.spelling);
    }
    // After a step: the counts, and the items at and below the paths the step named (those it
    // can have changed), or their absence. The whole model is compared at the end of the input.
    void check(const std::string& path, const std::string& other) const {
        QN_FUZZ_CHECK(cache_->count() == model_.size() + 1, path, std::to_string(cache_->count()));
        QN_FUZZ_CHECK(cache_->numberOfSubentriesForEntryAtPath(kBase) == model_.size(), path,
                      std::to_string(model_.size()));
        for (const std::string& named : {path, other}) {
            if (named.empty()) {
                continue;
            }
            const std::string key = keyOf(named);
            QN_FUZZ_CHECK(model_.contains(key) ==
                              (cache_->entryForPath(std::string(kBase) + named) != nullptr),
                          named, key);
            for (auto it = model_.lower_bound(key);
                 it != model_.end() && it->first.starts_with(key); ++it) {
                if (it->first == key || isBelow(it->first, key)) {
                    checkItem(it->first, it->second);
                }
            }
        }
    }

    std::shared_ptr<QNiCloudCache> cache_;
    Model model_;
};

std::string pathFrom(const std::uint8_t*& data, const std::uint8_t* end) {
    std::string path;
    const int depth = data < end ? 1 + *data++ % 3 : 1;
    for (int i = 0; i < depth && data < end; ++i) {
        path += "/" + std::string(kNames[*data++ % std::size(kNames)]);
    }
    return path.empty() ? "/a" : path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::uint8_t* end = data + std::min<std::size_t>(size, 512);
    Driver driver;
    while (data < end) {
        const std::uint8_t op = *data++;
        const std::string path = pathFrom(data, end);
        const std::string other =
            op % kOperations == 3 || op % kOperations == 4 ? pathFrom(data, end) : std::string();
        driver.step(op, path, other);
    }
    driver.checkAll();
    return 0;
}
